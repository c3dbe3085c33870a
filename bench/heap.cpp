// The phys heap, in a region of the caller's. `malloc` has the whole address space to place its blocks in, and no
// order to keep.
#include "replace.h"

#include <brenvole/dfheap.h>

#include <cstdlib>

namespace {

constexpr uint32_t kFromTop = 8192; // blocks up to this size come from the top of the region

struct OurSpace {
    explicit OurSpace(Region region)
        : heap(DFHEAP_Create(0, reinterpret_cast<uintptr_t>(region.base), region.bytes, kGranule, kFromTop)) {}
    void *take(uint64_t size) const { return reinterpret_cast<void *>(DFHEAP_Alloc(heap, &size, 0, nullptr)); }
    void giveBack(char *block) const { DFHEAP_Free(heap, reinterpret_cast<uintptr_t>(block), nullptr); }
    DFHEAP *heap;
};

// Its blocks go at the end of each run, or the other works would find a C library's heap full of holes.
void replaceMalloc(benchmark::State &state) {
    Choices choices{std::mt19937{1}};
    std::vector<void *> blocks(static_cast<std::size_t>(state.range(0)));
    const auto take = [&] {
        const uint64_t size = choices.size();
        void *const block = std::malloc(size);
        if (peakMode) [[unlikely]] {
            peakTouch(block, size);
        }
        return block;
    };
    const auto replace = [&] {
        void *&block = blocks[choices.index(blocks.size())];
        std::free(block);
        block = take();
    };
    for (void *&block : blocks) {
        block = take();
    }
    for (std::size_t i = 0; i < kAge; ++i) {
        replace();
    }
    for ([[maybe_unused]] auto _ : state) {
        replace();
    }
    for (void *const block : blocks) {
        std::free(block);
    }
}

BENCHMARK(replaceBlocks<OurSpace>)->Name("replace_block/ours")->Apply(onAllCounts);
BENCHMARK(replaceBlocks<OurSpace>)->Name("replace_block/ours")->Arg(256)->Threads(2);
BENCHMARK(replaceMalloc)->Name("replace_block/malloc")->Arg(16)->Arg(256)->Arg(4096);

} // namespace
