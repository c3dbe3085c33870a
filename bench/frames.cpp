// Frames: made and released, in the pool and in the local heap, and shared.
#include "util/qxutil.h"

#include <brenvole/dframe.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace {

constexpr int64_t kSmallData = 4096;      // a packet of sound; its block comes from QXAlloc each time
constexpr int64_t kPictureData = 3110400; // 1920 x 1080, 4:2:0; large enough for the cached block
constexpr std::size_t kHeaderBytes = DFRAME_SIZE + sizeof(uint32_t); // the record and the count in front of it

constexpr int64_t kPool = 64 << 20;

uint64_t makeFrame(PDFRAME &frame, int64_t data, uint32_t side) {
    frame = nullptr;
    return DFrameMem(DFRAME_ALLOC | side, data, DFRAME_SIZE, &frame);
}

uint64_t dropFrame(PDFRAME &frame) { return DFrameMem(DFRAME_FREE, 0, 0, &frame); }

void roundTripOurs(benchmark::State &state, uint32_t side) {
    PDFRAME frame = nullptr;
    uint64_t refused = DFrameMem(DFRAME_RESET, kPool, 0, nullptr);
    refused |=
        makeFrame(frame, state.range(0), side) | dropFrame(frame); // the local heap caches a block from here on
    for ([[maybe_unused]] auto _ : state) {
        refused |= makeFrame(frame, state.range(0), side);
        refused |= dropFrame(frame);
    }
    DFrameMem(DFRAME_CLOSE, 0, 0, nullptr);
    if (refused != 0) {
        state.SkipWithError("a command was refused");
    }
}

// The same two pieces of memory without a count, a lock or a way back from pointer to block.
void roundTripHeap(benchmark::State &state) {
    for ([[maybe_unused]] auto _ : state) {
        void *const header = std::calloc(1, kHeaderBytes);
        void *const data = std::malloc(static_cast<std::size_t>(state.range(0)));
        benchmark::DoNotOptimize(header);
        benchmark::DoNotOptimize(data);
        std::free(data);
        std::free(header);
    }
}

// What no frame can do without: a cleared header, and the lock when it comes and when it goes.
void roundTripFloor(benchmark::State &state) {
    QXCRITICALSECTION lock;
    qxOSInitializeCriticalSection(&lock);
    std::array<char, kHeaderBytes> header;
    for ([[maybe_unused]] auto _ : state) {
        std::memset(header.data(), 0, header.size());
        benchmark::DoNotOptimize(header);
        for (int i = 0; i < 2; ++i) {
            qxOSEnterCriticalSection(&lock);
            qxOSLeaveCriticalSection(&lock);
        }
    }
    qxOSDeleteCriticalSection(&lock);
}

BENCHMARK_CAPTURE(roundTripOurs, pool, 0)->Name("frame_round_trip/ours")->Arg(kSmallData)->Arg(kPictureData);
BENCHMARK_CAPTURE(roundTripOurs, local, DFRAME_FLAG_SYSHEAP)
    ->Name("frame_round_trip/our_local_heap")
    ->Arg(kSmallData)
    ->Arg(kPictureData);
BENCHMARK(roundTripHeap)->Name("frame_round_trip/calloc_malloc")->Arg(kSmallData)->Arg(kPictureData);
BENCHMARK(roundTripFloor)->Name("frame_round_trip/floor_clear_2locks")->Arg(kSmallData)->Arg(kPictureData);

void shareOurs(benchmark::State &state) {
    PDFRAME frame = nullptr;
    uint64_t refused = makeFrame(frame, kSmallData, DFRAME_FLAG_SYSHEAP);
    for ([[maybe_unused]] auto _ : state) {
        PDFRAME second = frame;
        refused |= DFrameMem(DFRAME_ADDREF, 0, 0, &second);
        refused |= dropFrame(second);
    }
    refused |= dropFrame(frame);
    if (refused != 0) {
        state.SkipWithError("a command was refused");
    }
}

// Header and data with an atomic count each: the shape that a frame would have in plain C++.
void shareSharedPtr(benchmark::State &state) {
    const auto header = std::make_shared<std::array<char, kHeaderBytes>>();
    const auto data = std::make_shared<std::array<char, kSmallData>>();
    for ([[maybe_unused]] auto _ : state) {
        auto secondHeader = header;
        auto secondData = data;
        benchmark::DoNotOptimize(secondHeader);
        benchmark::DoNotOptimize(secondData);
    }
}

// Two counts under one lock, which is taken once for each command.
void shareLocked(benchmark::State &state) {
    std::mutex lock;
    volatile uint32_t headerCount = 1; // volatile: the optimiser must not keep it in a register
    volatile uint32_t dataCount = 1;
    for ([[maybe_unused]] auto _ : state) {
        for (uint32_t by : {1u, UINT32_MAX}) { // up, and down again
            const std::scoped_lock hold(lock);
            headerCount = headerCount + by;
            dataCount = dataCount + by;
        }
    }
}

BENCHMARK(shareOurs)->Name("addref_free/ours");
BENCHMARK(shareSharedPtr)->Name("addref_free/shared_ptr_x2");
BENCHMARK(shareLocked)->Name("addref_free/std_mutex_x2");

} // namespace
