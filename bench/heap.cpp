// The phys heap: one of N live blocks is replaced by another, of 4 to 64 KiB, in a region twice as large as they
// need. The peer has the whole address space to place its blocks in, and no order to keep.
#include <brenvole/dfheap.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <vector>

namespace {

constexpr uint32_t kGranule = 4096;
constexpr uint32_t kLargestGranules = 16;         // of a block
constexpr uintptr_t kRegion = uintptr_t{1} << 40; // never touched, so it needn't be there

// What each round replaces, and by how many bytes; the same for both sides.
struct Choices {
    std::mt19937 random{1};
    std::size_t index(std::size_t blocks) { return random() % blocks; }
    uint64_t size() { return (1 + random() % kLargestGranules) * kGranule; }
};

void replaceOurs(benchmark::State &state) {
    Choices choices;
    std::vector<uintptr_t> blocks(static_cast<std::size_t>(state.range(0)));
    DFHEAP *const heap = DFHEAP_Create(0, kRegion, blocks.size() * 2 * kLargestGranules * kGranule, kGranule, 8192);
    const auto take = [&] {
        uint64_t size = choices.size();
        return DFHEAP_Alloc(heap, &size, 0, nullptr);
    };
    for (uintptr_t &block : blocks) {
        block = take();
    }
    for ([[maybe_unused]] auto _ : state) {
        uintptr_t &block = blocks[choices.index(blocks.size())];
        DFHEAP_Free(heap, block, nullptr);
        block = take();
        if (block == 0) {
            state.SkipWithError("no room");
            break;
        }
    }
    for (const uintptr_t block : blocks) {
        DFHEAP_Free(heap, block, nullptr);
    }
    DFHEAP_Destroy(heap);
}

void replaceHeap(benchmark::State &state) {
    Choices choices;
    std::vector<void *> blocks(static_cast<std::size_t>(state.range(0)));
    for (void *&block : blocks) {
        block = std::malloc(choices.size());
    }
    for ([[maybe_unused]] auto _ : state) {
        void *&block = blocks[choices.index(blocks.size())];
        std::free(block);
        block = std::malloc(choices.size());
    }
    for (void *const block : blocks) {
        std::free(block);
    }
}

BENCHMARK(replaceOurs)->Name("replace_block/ours")->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(replaceHeap)->Name("replace_block/malloc")->Arg(16)->Arg(256)->Arg(4096);

} // namespace
