// The commands between capture and output: a copy beside memcpy of the same bytes, and an exchange.
#include "frame_life.h"

#include <memory>

namespace {

constexpr int64_t kPool = 100000000;
constexpr int64_t kOneByte = 1; // what a copy costs beside its bytes

uint64_t command(uint32_t number, PDFRAME &frame, PDFRAME *source = nullptr, int64_t size = 0) {
    return DFrameMem(number, size, reinterpret_cast<uintptr_t>(source), &frame);
}

uint64_t makeFrame(PDFRAME &frame, int64_t size) {
    const uint64_t refused = DFrameMem(DFRAME_ALLOC, size, DFRAME_SIZE, &frame);
    if (refused == 0) {
        frame->dwBytesUsed = static_cast<uint32_t>(size);
        std::memset(frame->lpData, 1, frame->dwBufferLength);
    }
    return refused;
}

// Two frames in a pool of their own.
struct Pair {
    PDFRAME first = nullptr;
    PDFRAME second = nullptr;
    uint64_t refused = DFrameMem(DFRAME_RESET, kPool, 0, nullptr);

    explicit Pair(int64_t size) { refused |= makeFrame(first, size) | makeFrame(second, size); }
    Pair(const Pair &) = delete;
    Pair &operator=(const Pair &) = delete;
    ~Pair() {
        command(DFRAME_FREE, first);
        command(DFRAME_FREE, second);
        DFrameMem(DFRAME_CLOSE, 0, 0, nullptr);
    }
    void check(benchmark::State &state) const {
        if (refused != 0) {
            state.SkipWithError("a command was refused");
        }
    }
};

// A new frame with the bytes of another one, and its end.
void copyOurs(benchmark::State &state, int64_t size) {
    Pair pair(size);
    bool copied = true;
    for ([[maybe_unused]] auto _ : state) {
        PDFRAME copy = nullptr;
        pair.refused |= command(DFRAME_COPY, copy, &pair.first);
        copied = copied && copy != nullptr && copy->lpData != pair.first->lpData;
        pair.refused |= command(DFRAME_FREE, copy);
    }
    pair.check(state);
    if (!copied) {
        state.SkipWithError("the copy has the same data");
    }
}

// Into a frame that is there.
void copyIntoOurs(benchmark::State &state, int64_t size) {
    Pair pair(size);
    for ([[maybe_unused]] auto _ : state) {
        pair.refused |= command(DFRAME_COPY, pair.second, &pair.first);
    }
    pair.check(state);
}

// Into a buffer that is warm.
void copyMemcpy(benchmark::State &state, int64_t size) {
    const auto bytes = static_cast<std::size_t>(size);
    const std::unique_ptr<char[]> from = std::make_unique<char[]>(bytes);
    const std::unique_ptr<char[]> to = std::make_unique<char[]>(bytes);
    std::memset(from.get(), 1, bytes); // its pages, or the bytes would all come from one page of zeros
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(to.get(), from.get(), bytes);
        benchmark::ClobberMemory();
    }
}

void swapOurs(benchmark::State &state) {
    Pair pair(kPicture);
    for ([[maybe_unused]] auto _ : state) {
        pair.refused |= command(DFRAME_SWAP, pair.second, &pair.first);
    }
    pair.check(state);
}

// The exchange of two headers of that size.
void swapHeaders(benchmark::State &state) {
    const std::unique_ptr<char[]> first = std::make_unique<char[]>(DFRAME_SIZE);
    const std::unique_ptr<char[]> second = std::make_unique<char[]>(DFRAME_SIZE);
    char held[DFRAME_SIZE];
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(held, first.get(), sizeof held);
        std::memcpy(first.get(), second.get(), sizeof held);
        std::memcpy(second.get(), held, sizeof held);
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(copyOurs, small, kPicture)->Name("copy_3mb/ours");
BENCHMARK_CAPTURE(copyMemcpy, small, kPicture)->Name("copy_3mb/memcpy");
BENCHMARK_CAPTURE(copyOurs, large, kLargePicture)->Name("copy_12mb/ours");
BENCHMARK_CAPTURE(copyMemcpy, large, kLargePicture)->Name("copy_12mb/memcpy");
BENCHMARK_CAPTURE(copyIntoOurs, byte, kOneByte)->Name("copy_into_1_byte/ours");
BENCHMARK_CAPTURE(copyIntoOurs, small, kPicture)->Name("copy_into_3mb/ours");
BENCHMARK_CAPTURE(copyMemcpy, intoSmall, kPicture)->Name("copy_into_3mb/memcpy");
BENCHMARK(swapOurs)->Name("swap/ours");
BENCHMARK(swapHeaders)->Name("swap/headers");

} // namespace
