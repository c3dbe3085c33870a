// Sharing: a second header on the same data, and one more reference to the same frame.
#include "frame_life.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace {

constexpr int64_t kPool = 64 << 20;

// The frame that all threads share. The first thread makes it in front of the loop, and ends it behind.
PDFRAME source = nullptr;

uint64_t begin(const benchmark::State &state, uint32_t side) {
    if (state.thread_index() != 0) {
        return 0;
    }
    uint64_t refused = DFrameMem(DFRAME_RESET, kPool, 0, nullptr);
    refused |= DFrameMem(DFRAME_ALLOC | side, kPicture, DFRAME_SIZE, &source);
    if (refused == 0) {
        source->dwBytesUsed = static_cast<uint32_t>(kPicture);
    }
    return refused;
}

void end(benchmark::State &state, uint64_t refused) {
    if (state.thread_index() == 0) {
        refused |= DFrameMem(DFRAME_FREE, 0, 0, &source);
        DFrameMem(DFRAME_CLOSE, 0, 0, nullptr);
    }
    if (refused != 0) {
        state.SkipWithError("a command was refused");
    }
}

void shareOurs(benchmark::State &state) {
    uint64_t refused = begin(state, 0);
    bool shared = true;
    for ([[maybe_unused]] auto _ : state) {
        PDFRAME second = nullptr;
        refused |= DFrameMem(DFRAME_DUP_FREE, 0, reinterpret_cast<uintptr_t>(&source), &second);
        shared = shared && second != nullptr && second != source && second->lpData == source->lpData;
        refused |= DFrameMem(DFRAME_FREE, 0, 0, &second);
    }
    end(state, refused);
    if (!shared) {
        state.SkipWithError("the second frame has other data");
    }
}

std::atomic<int> references = 1;

// A second header that is cleared and no more, and a count.
void shareCleared(benchmark::State &state) {
    for ([[maybe_unused]] auto _ : state) {
        void *const header = std::calloc(1, kHeader);
        references.fetch_add(1, std::memory_order_relaxed);
        benchmark::DoNotOptimize(header);
        references.fetch_sub(1, std::memory_order_acq_rel);
        std::free(header);
    }
}

// One that holds what the first one holds, as ours does.
void shareCopied(benchmark::State &state) {
    const std::unique_ptr<char[]> first = std::make_unique<char[]>(kHeader);
    for ([[maybe_unused]] auto _ : state) {
        void *const header = std::malloc(kHeader);
        std::memcpy(header, first.get(), kHeader);
        references.fetch_add(1, std::memory_order_relaxed);
        benchmark::DoNotOptimize(header);
        references.fetch_sub(1, std::memory_order_acq_rel);
        std::free(header);
    }
}

BENCHMARK(shareOurs)->Name("share/ours")->Apply(onOneAndTwoThreads);
BENCHMARK(shareCleared)->Name("share/calloc_reference")->Apply(onOneAndTwoThreads);
BENCHMARK(shareCopied)->Name("share/malloc_memcpy_reference")->Apply(onOneAndTwoThreads);

void addrefOurs(benchmark::State &state, uint32_t side) {
    uint64_t refused = begin(state, side);
    for ([[maybe_unused]] auto _ : state) {
        PDFRAME second = source;
        refused |= DFrameMem(DFRAME_ADDREF, 0, 0, &second);
        refused |= DFrameMem(DFRAME_FREE, 0, 0, &second);
    }
    end(state, refused);
}

// Header and data with an atomic count each: the shape that a frame would have in plain C++.
void addrefSharedPtr(benchmark::State &state) {
    static const auto header = std::make_shared<std::array<char, kHeader>>();
    static const auto data = std::make_shared<std::array<char, kSound>>();
    for ([[maybe_unused]] auto _ : state) {
        auto secondHeader = header;
        auto secondData = data;
        benchmark::DoNotOptimize(secondHeader);
        benchmark::DoNotOptimize(secondData);
    }
}

std::mutex lock;
volatile uint32_t headerCount = 1; // volatile: the optimiser must not keep it in a register
volatile uint32_t dataCount = 1;

// Two counts under one lock, which is taken once for each command.
void addrefLocked(benchmark::State &state) {
    for ([[maybe_unused]] auto _ : state) {
        for (uint32_t by : {1u, UINT32_MAX}) { // up, and down again
            const std::scoped_lock hold(lock);
            headerCount = headerCount + by;
            dataCount = dataCount + by;
        }
    }
}

BENCHMARK_CAPTURE(addrefOurs, pool, 0)->Name("addref/ours")->Apply(onOneAndTwoThreads);
BENCHMARK_CAPTURE(addrefOurs, local, DFRAME_FLAG_SYSHEAP)->Name("addref/ours_local")->Apply(onOneAndTwoThreads);
BENCHMARK(addrefSharedPtr)->Name("addref/shared_ptr_x2")->Apply(onOneAndTwoThreads);
BENCHMARK(addrefLocked)->Name("addref/std_mutex_x2")->Apply(onOneAndTwoThreads);

} // namespace
