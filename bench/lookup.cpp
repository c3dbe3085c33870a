// From a bare pointer to its block. The last two rows, pointers into no block, have no peer: nothing else in the
// process could tell.
#include "local/local_heap.h"

#include <brenvole/dframe.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

#include <malloc.h>

namespace {

constexpr int64_t kBlockData = 1 << 20;      // longer than the reach of a search
constexpr uintptr_t kReach = 17 * 16384 - 1; // the last byte that is found, from the start of the data
constexpr uintptr_t kNothingHere = 0x100000; // below all that the system maps; so is the whole search

void search(benchmark::State &state, uintptr_t address, bool expected) {
    brenvole::PHALLOC *found = nullptr;
    for ([[maybe_unused]] auto _ : state) {
        found = brenvole::LHEAP_Find(address); // in another unit, so every round calls it
    }
    if ((found != nullptr) != expected) {
        state.SkipWithError("the search has a wrong result");
    }
}

void findInBlock(benchmark::State &state, uintptr_t distance) {
    PDFRAME frame = nullptr;
    if (DFrameMem(DFRAME_ALLOC | DFRAME_FLAG_SYSHEAP, kBlockData, DFRAME_SIZE, &frame) != 0) {
        state.SkipWithError("no frame");
        return;
    }
    search(state, reinterpret_cast<uintptr_t>(frame->lpData) + distance, true);
    DFrameMem(DFRAME_FREE, 0, 0, &frame);
}

void findForeign(benchmark::State &state) {
    const std::unique_ptr<char[]> block = std::make_unique<char[]>(kBlockData); // cleared, so every page is there
    search(state, reinterpret_cast<uintptr_t>(block.get()) + kBlockData / 2, false);
}

// Asks the C library's heap what it knows of a pointer, which must be the start of a block.
void usableSize(benchmark::State &state) {
    void *block = std::malloc(kBlockData);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::ClobberMemory();
        benchmark::DoNotOptimize(malloc_usable_size(block));
    }
    std::free(block);
}

BENCHMARK_CAPTURE(findInBlock, start, 0)->Name("find_data_start/ours");
BENCHMARK(usableSize)->Name("find_data_start/malloc_usable_size");
BENCHMARK_CAPTURE(findInBlock, end, kReach)->Name("find_far_end/ours");
BENCHMARK(findForeign)->Name("find_foreign/ours");
BENCHMARK_CAPTURE(search, nowhere, kNothingHere, false)->Name("find_unmapped/ours");

} // namespace
