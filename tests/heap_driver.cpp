#include "heap_driver.h"

#include "harness.h"
#include "local/counters.h"
#include "phys/heap.h"

#include <algorithm>

using namespace brenvole;

namespace {

struct Block {
    uint64_t size;
    int32_t references;
    uint64_t owner;
};

struct Model {
    uint64_t offset, base, length, granule, smallest;
    std::map<uint64_t, Block> blocks; // by address

    // Bytes up to the next multiple of the granule.
    uint64_t missing(uint64_t value) const { return (granule - value % granule) % granule; }
    auto holding(uint64_t addr) {
        auto at = blocks.upper_bound(addr);
        if (at == blocks.begin()) { return blocks.end(); }
        --at;
        return addr - at->first < at->second.size ? at : blocks.end();
    }
    // What lies free between the blocks: address and size.
    std::vector<std::pair<uint64_t, uint64_t>> gaps() const {
        std::vector<std::pair<uint64_t, uint64_t>> found;
        uint64_t from = base;
        const auto upTo = [&](uint64_t addr) {
            if (addr != from) { found.emplace_back(from, addr - from); }
        };
        for (const auto &[addr, block] : blocks) {
            upTo(addr);
            from = addr + block.size;
        }
        upTo(base + length); // may be 0, the end of all
        return found;
    }
    // First fit from the end that the size asks for; 0 if nothing fits.
    uint64_t take(uint64_t size, uint64_t owner) {
        uint64_t block = 0;
        for (const auto &[addr, gap] : gaps()) {
            if (gap < size || (size > smallest && block != 0)) { continue; }
            block = size > smallest ? addr : addr + gap - size;
        }
        if (block != 0) { blocks[block] = {size, 1, owner}; }
        return block;
    }
};

struct Run {
    std::span<const uint8_t> input;
    std::size_t read = 0; // of the input
    Model model = {};
    DFHEAP *heap = nullptr;
    std::string error = {};

    // The input, byte by byte; zeros behind its end.
    uint64_t next() { return read < input.size() ? input[read++] : 0; }
    uint64_t wide() { return next() | next() << 8 | next() << 16; }
    // False ends the run.
    bool expect(bool holds, const char *what) {
        if (!holds && error.empty()) { error = what; }
        return holds;
    }
    // The heap, if its geometry has room for a granule.
    void create(bool refuseMap) {
        constexpr uint32_t kGranules[] = {1, 48, 4096, 3};
        constexpr uint32_t kSmallest[] = {0, 8192, UINT32_MAX, 100};
        const uint32_t granule = kGranules[next() % 4], smallest = kSmallest[next() % 4];
        const uint64_t length = (next() + 1) * granule + next() % 64;
        const uint64_t base = next() % 2 == 0 ? 0x10000 + next() * 7 : -length; // may end at 2^64
        const uint64_t offset = next() * 1001;
        model = {offset, base, length, granule, smallest, {}};
        const uint64_t lost = model.missing(base);
        model.offset += model.missing(offset);
        model.base += lost;
        model.length = (length - lost) / granule * granule;
        failNth(refuseMap ? 3 : 0);
        heap = DFHEAP_Create(offset, base, length, granule, smallest);
        failNth(0);
        expect((heap != nullptr) == (base <= UINT64_MAX - lost && length >= lost + granule), "create");
    }
    // An address of any kind: in a block or a segment, at an end, outside.
    uint64_t anyAddress() {
        const uint64_t choice = next();
        if (choice % 8 == 0) { return choice == 0 ? 0 : model.base + model.length - 1 + choice / 8; }
        return model.base + wide() % model.length;
    }
    bool alloc() {
        const uint64_t wanted = next() % 16 == 0 ? UINT64_MAX - next() : 1 + wide() % (model.length / 4 + 1);
        const uint64_t owner = next();
        uint64_t size = wanted, offset = 77;
        const uint64_t got = DFHEAP_Alloc(heap, &size, owner, &offset);
        const uint64_t more = model.missing(wanted);
        const bool possible = wanted <= UINT64_MAX - more;
        const uint64_t expected = possible ? model.take(wanted + more, owner) : 0;
        return expect(size == wanted + (possible ? more : 0), "rounded size") && expect(got == expected, "address") &&
               expect(offset == (got == 0 ? 77 : model.offset + (got - model.base)), "offset");
    }
    bool count(bool up) {
        const uint64_t addr = anyAddress();
        uint64_t owner = 99;
        const int32_t got = up ? DFHEAP_AddRef(heap, addr, &owner) : DFHEAP_Free(heap, addr, &owner);
        const auto block = model.holding(addr);
        if (addr == 0) { return expect(got == -1 && owner == 99, "count of null"); }
        if (block == model.blocks.end()) { return expect(got == (up ? -1 : 0) && owner == 0, "count of nothing"); }
        const int32_t left = block->second.references += up ? 1 : -1;
        const uint64_t expected = up || left == 0 ? block->second.owner : 0;
        if (left == 0) { model.blocks.erase(block); }
        return expect(got == (up ? 0 : left) && owner == expected, up ? "addref" : "free");
    }
    bool look() {
        const uint64_t addr = anyAddress();
        uintptr_t fixed = addr;
        const uint32_t distance = DFHEAP_FindAlloc(heap, &fixed);
        const int32_t got = DFHEAP_FixAlloc(heap, &fixed);
        const auto block = model.holding(addr);
        const bool found = block != model.blocks.end();
        return expect(got == (found ? 0 : -1) && fixed == (found ? block->first : addr), "fix") &&
               expect(distance == (found ? static_cast<uint32_t>(addr - block->first) : 0), "find");
    }
    bool swap() {
        const uint64_t one = anyAddress(), other = anyAddress();
        const int32_t got = DFHEAP_SwapRef(heap, one, 1000, other, 2000);
        const auto first = model.holding(one), second = model.holding(other);
        if (first == model.blocks.end() || second == model.blocks.end()) {
            return expect(got == -1, "swap of nothing");
        }
        std::swap(first->second.references, second->second.references);
        first->second.owner = 2000;
        second->second.owner = 1000;
        return expect(got == 0, "swap");
    }
    bool step() {
        const uint64_t choice = next() % 8;
        return choice < 3 ? alloc() : choice < 6 ? count(choice == 5) : choice == 6 ? look() : swap();
    }
    bool agrees() {
        uint32_t blocks = 0, segments = 0;
        DFHEAP_State(heap, &blocks, &segments);
        uint64_t free = 0, largest = 0;
        const auto gaps = model.gaps();
        for (const auto &[addr, size] : gaps) {
            free += size;
            largest = std::max(largest, size);
        }
        return expect(blocks == model.blocks.size() && segments == gaps.size(), "state") &&
               expect(DFHEAP_LargestAvail(heap) == largest, "largest") &&
               expect(DFHEAP_TotalFree(heap) == free, "free bytes") &&
               expect(DFHEAP_TotalUsed(heap) == model.length - free, "used bytes") &&
               expect(_DFHEAP_Check(heap) == 0, "a rule of the heap is broken");
    }
};

} // namespace

std::string driveHeap(std::span<const uint8_t> input, bool refuseMap) {
    Run run{.input = input};
    const LogCapture log; // null addresses and refused maps are told
    const uint64_t counted = phys_allocs;
    run.create(refuseMap);
    if (run.heap == nullptr) { return run.error; }
    int number = 0;
    bool going = run.error.empty() && run.agrees();
    for (; going && run.read < input.size(); ++number) { going = run.step() && run.agrees(); }
    while (going && !run.model.blocks.empty()) { // everything back: one segment is left
        const auto first = run.model.blocks.begin();
        if (DFHEAP_Free(run.heap, first->first, nullptr) == 0) { run.model.blocks.erase(first); }
        going = run.agrees();
    }
    going = going && run.expect(phys_allocs == counted, "phys_allocs");
    DFHEAP_Destroy(run.heap);
    return going ? "" : run.error + " at operation " + std::to_string(number);
}
