/** @file
 *  One of N live blocks, of 4 to 64 KiB, is replaced by another: the same for every side, in a region of the caller's
 *  that is twice as large as the blocks could ever need. */
#ifndef BRENVOLE_BENCH_REPLACE_H
#define BRENVOLE_BENCH_REPLACE_H

#include "peak.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include <sys/mman.h>

constexpr uint32_t kGranule = 4096;
constexpr uint32_t kLargestGranules = 16; // of a block

// So many blocks have been replaced before it counts: there are free segments of all kinds then. With more, the
// slowest side would take a minute.
constexpr std::size_t kAge = 16384;

constexpr const char *kNoRoom = "no room, or a block outside the region";

/** What each round replaces, and by how many bytes. */
struct Choices {
    std::mt19937 random;
    std::size_t index(std::size_t blocks) { return random() % blocks; }
    uint64_t size() { return (1 + random() % kLargestGranules) * kGranule; }
};

struct Region {
    char *base;
    std::size_t bytes;
};

/** A region for so many blocks; pages that nobody writes to take no memory. A null base if there is none. */
inline Region regionFor(std::size_t blocks) {
    const std::size_t bytes = blocks * 2 * kLargestGranules * kGranule;
    void *const base =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return {base != MAP_FAILED ? static_cast<char *>(base) : nullptr, bytes};
}

/** One side's region and blocks. `Space` is made from a Region, and has take(bytes) and giveBack(block). */
template <class Space> struct Live {
    explicit Live(std::size_t count) : region(regionFor(count)), space(region), blocks(count) {}
    Region region;
    Space space;
    std::vector<char *> blocks;
    bool whole = true;
};

template <class Space> char *takeBlock(Live<Space> &live, Choices &choices) {
    const uint64_t size = choices.size();
    char *const block = static_cast<char *>(live.space.take(size));
    if (block < live.region.base || block >= live.region.base + live.region.bytes) [[unlikely]] {
        live.whole = false;
    } else if (peakMode) [[unlikely]] {
        peakTouch(block, size);
    }
    return block;
}

template <class Space> void replaceBlock(Live<Space> &live, Choices &choices, std::size_t from, std::size_t count) {
    char *&block = live.blocks[from + choices.index(count)];
    live.space.giveBack(block);
    block = takeBlock(live, choices);
}

/** The blocks of that number, made and aged at the first call. They live on until the program ends: the ageing takes
 *  seconds on some sides. */
template <class Space> Live<Space> &liveBlocks(std::size_t count) {
    static std::mutex lock;
    static auto *const all = new std::map<std::size_t, std::unique_ptr<Live<Space>>>; // never ended
    const std::scoped_lock hold(lock);
    std::unique_ptr<Live<Space>> &live = (*all)[count];
    if (!live) {
        live = std::make_unique<Live<Space>>(count);
        Choices choices{std::mt19937{1}};
        for (char *&block : live->blocks) {
            block = takeBlock(*live, choices);
        }
        for (std::size_t i = 0; i < kAge && live->whole; ++i) {
            replaceBlock(*live, choices, 0, count);
        }
    }
    return *live;
}

/** The benchmark of one side. Each thread replaces blocks of its own part. */
template <class Space> void replaceBlocks(benchmark::State &state) {
    Live<Space> &live = liveBlocks<Space>(static_cast<std::size_t>(state.range(0)));
    const std::size_t part = live.blocks.size() / static_cast<std::size_t>(state.threads());
    const auto thread = static_cast<std::size_t>(state.thread_index());
    Choices choices{std::mt19937{static_cast<uint32_t>(2 + thread)}};
    for ([[maybe_unused]] auto _ : state) {
        replaceBlock(live, choices, thread * part, part);
    }
    if (!live.whole) {
        state.SkipWithError(kNoRoom);
    }
}

/** For BENCHMARK(...)->Apply. */
inline void onAllCounts(benchmark::internal::Benchmark *work) { work->Arg(16)->Arg(256)->Arg(4096)->Arg(65536); }

#endif
