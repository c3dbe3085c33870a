// The commands between capture and output: a copy beside memcpy of the same bytes, a duplicate that shares, an
// exchange.
#include <brenvole/dframe.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int64_t kPool = 100000000;
constexpr int64_t kOneByte = 1;       // what a copy costs beside its bytes
constexpr int64_t kPicture = 3110400; // 1920 x 1080, 4:2:0
constexpr int64_t kLarge = 12441600;  // 3840 x 2160, 4:2:0

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

void copyOurs(benchmark::State &state) {
    Pair pair(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        pair.refused |= command(DFRAME_COPY, pair.second, &pair.first);
    }
    pair.check(state);
}

void copyMemcpy(benchmark::State &state) {
    const auto bytes = static_cast<std::size_t>(state.range(0));
    const std::unique_ptr<char[]> from = std::make_unique<char[]>(bytes);
    const std::unique_ptr<char[]> to = std::make_unique<char[]>(bytes);
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(to.get(), from.get(), bytes);
        benchmark::ClobberMemory();
    }
}

void duplicateOurs(benchmark::State &state) {
    Pair pair(kPicture);
    for ([[maybe_unused]] auto _ : state) {
        PDFRAME shared = nullptr;
        pair.refused |= command(DFRAME_DUP_FREE, shared, &pair.first);
        pair.refused |= command(DFRAME_FREE, shared);
    }
    pair.check(state);
}

// A second header on the same data: cleared, filled by half, and a count.
void duplicateHeader(benchmark::State &state) {
    const auto data = std::make_shared<int>(1);
    const std::unique_ptr<char[]> source = std::make_unique<char[]>(DFRAME_SIZE);
    for ([[maybe_unused]] auto _ : state) {
        auto shared = data;
        void *const header = std::calloc(1, DFRAME_SIZE);
        std::memcpy(header, source.get(), DFRAME_SIZE);
        benchmark::DoNotOptimize(header);
        benchmark::DoNotOptimize(shared);
        std::free(header);
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

BENCHMARK(copyOurs)->Name("copy/ours")->Arg(kOneByte)->Arg(kPicture)->Arg(kLarge);
BENCHMARK(copyMemcpy)->Name("copy/memcpy")->Arg(kOneByte)->Arg(kPicture)->Arg(kLarge);
BENCHMARK(duplicateOurs)->Name("duplicate/ours");
BENCHMARK(duplicateHeader)->Name("duplicate/header_shared_ptr");
BENCHMARK(swapOurs)->Name("swap/ours");
BENCHMARK(swapHeaders)->Name("swap/headers");

} // namespace
