#include "heap_driver.h"

#include "harness.h"
#include "local/counters.h"
#include "phys/heap.h"

#include <map>
#include <optional>

using namespace brenvole;

namespace {

// The input, byte by byte; zeros behind its end.
struct Bytes {
    std::span<const uint8_t> left;
    uint64_t next() {
        if (left.empty()) { return 0; }
        const uint8_t byte = left.front();
        left = left.subspan(1);
        return byte;
    }
    uint64_t wide() { return next() | next() << 8 | next() << 16; }
};

struct Block {
    uint64_t size;
    int32_t references;
    uint64_t owner;
};

struct Model {
    uint64_t offset, base, length, granule, smallest;
    std::map<uint64_t, Block> blocks;
    std::map<uint64_t, uint64_t> segments; // address and size; no two touch

    auto holding(uint64_t addr) {
        auto at = blocks.upper_bound(addr);
        if (at == blocks.begin()) { return blocks.end(); }
        --at;
        return addr - at->first < at->second.size ? at : blocks.end();
    }
    // First fit from the end that the size asks for; 0 if nothing fits.
    uint64_t take(uint64_t size, uint64_t owner) {
        const bool upwards = size > smallest;
        auto found = segments.end();
        for (auto at = segments.begin(); at != segments.end(); ++at) {
            if (at->second >= size) {
                found = at;
                if (upwards) { break; }
            }
        }
        if (found == segments.end()) { return 0; }
        const auto [addr, was] = *found;
        segments.erase(found);
        const uint64_t block = upwards ? addr : addr + (was - size);
        if (was != size) { segments[upwards ? addr + size : addr] = was - size; }
        blocks[block] = {size, 1, owner};
        return block;
    }
    void release(uint64_t addr) {
        uint64_t size = blocks.at(addr).size;
        blocks.erase(addr);
        auto behind = segments.upper_bound(addr);
        if (behind != segments.end() && behind->first - addr == size) {
            size += behind->second;
            behind = segments.erase(behind);
        }
        if (behind != segments.begin()) {
            const auto before = std::prev(behind);
            if (addr - before->first == before->second) {
                before->second += size;
                return;
            }
        }
        segments[addr] = size;
    }
    uint64_t free() const {
        uint64_t all = 0;
        for (const auto &[addr, size] : segments) { all += size; }
        return all;
    }
    uint64_t largest() const {
        uint64_t most = 0;
        for (const auto &[addr, size] : segments) { most = std::max(most, size); }
        return most;
    }
};

struct Run {
    Bytes input;
    Model model;
    DFHEAP *heap = nullptr;
    std::string error;

    // False ends the run.
    bool expect(bool holds, const char *what) {
        if (!holds && error.empty()) { error = what; }
        return holds;
    }
    bool geometry(uint64_t &base, uint64_t &length, uint64_t &offset, uint32_t &granule, uint32_t &smallest) {
        constexpr uint32_t kGranules[] = {1, 48, 4096, 3};
        constexpr uint32_t kSmallest[] = {0, 8192, UINT32_MAX, 100};
        granule = kGranules[input.next() % 4];
        smallest = kSmallest[input.next() % 4];
        length = (input.next() + 1) * granule + input.next() % 64;
        base = input.next() % 2 == 0 ? 0x10000 + input.next() * 7 : uint64_t{0} - length; // may end at 2^64
        offset = input.next() * 1001;
        const auto missing = [granule](uint64_t value) { return (granule - value % granule) % granule; };
        const uint64_t lost = missing(base);
        if (base > UINT64_MAX - lost || lost >= length) { return false; }
        const uint64_t usable = (length - lost) / granule * granule, first = base + lost;
        model = {offset + missing(offset), first, usable, granule, smallest, {}, {{first, usable}}};
        return usable != 0;
    }
    // An address of any kind: in a block or a segment, at an end, outside.
    uint64_t anyAddress() {
        const uint64_t choice = input.next();
        if (choice % 8 == 0) { return choice == 0 ? 0 : model.base + model.length - 1 + choice / 8; }
        return model.base + input.wide() % model.length;
    }
    bool alloc() {
        const uint64_t wanted =
            input.next() % 16 == 0 ? UINT64_MAX - input.next() : 1 + input.wide() % (model.length / 4 + 1);
        const uint64_t owner = input.next();
        uint64_t size = wanted;
        uint64_t offset = 77;
        const uint64_t got = DFHEAP_Alloc(heap, &size, owner, &offset);
        const uint64_t rest = wanted % model.granule;
        if (rest != 0 && wanted > UINT64_MAX - (model.granule - rest)) {
            return expect(got == 0 && size == wanted && offset == 77, "alloc beyond 2^64");
        }
        const uint64_t rounded = rest == 0 ? wanted : wanted + model.granule - rest;
        const uint64_t expected = model.take(rounded, owner);
        return expect(size == rounded, "rounded size") && expect(got == expected, "address") &&
               expect(offset == (got == 0 ? 77 : model.offset + (got - model.base)), "offset");
    }
    bool free() {
        const uint64_t addr = anyAddress();
        uint64_t owner = 99;
        if (addr == 0) { return expect(DFHEAP_Free(heap, 0, &owner) == -1 && owner == 99, "free of null"); }
        const int32_t got = DFHEAP_Free(heap, addr, &owner);
        const auto block = model.holding(addr);
        if (block == model.blocks.end()) { return expect(got == 0 && owner == 0, "free of nothing"); }
        const int32_t left = --block->second.references;
        const uint64_t expected = left == 0 ? block->second.owner : 0;
        if (left == 0) { model.release(block->first); }
        return expect(got == left && owner == expected, "free");
    }
    bool share() {
        const uint64_t addr = anyAddress();
        uint64_t owner = 99;
        const int32_t got = DFHEAP_AddRef(heap, addr, &owner);
        const auto block = model.holding(addr);
        if (addr == 0) { return expect(got == -1 && owner == 99, "addref of null"); }
        if (block == model.blocks.end()) { return expect(got == -1 && owner == 0, "addref of nothing"); }
        ++block->second.references;
        return expect(got == 0 && owner == block->second.owner, "addref");
    }
    bool look() {
        const uint64_t addr = anyAddress();
        uintptr_t fixed = addr;
        const uint32_t distance = DFHEAP_FindAlloc(heap, &fixed);
        const int32_t got = DFHEAP_FixAlloc(heap, &fixed);
        const auto block = addr == 0 ? model.blocks.end() : model.holding(addr);
        const bool found = block != model.blocks.end();
        return expect(got == (found ? 0 : -1) && fixed == (found ? block->first : addr), "fix") &&
               expect(distance == (found ? static_cast<uint32_t>(addr - block->first) : 0), "find");
    }
    bool swap() {
        const uint64_t one = anyAddress(), other = anyAddress();
        const int32_t got = DFHEAP_SwapRef(heap, one, 1000, other, 2000);
        const auto first = one == 0 ? model.blocks.end() : model.holding(one);
        const auto second = other == 0 ? model.blocks.end() : model.holding(other);
        if (first == model.blocks.end() || second == model.blocks.end()) {
            return expect(got == -1, "swap of nothing");
        }
        std::swap(first->second.references, second->second.references);
        first->second.owner = 2000;
        second->second.owner = 1000;
        return expect(got == 0, "swap");
    }
    bool step() {
        const uint64_t choice = input.next() % 8;
        return choice < 3 ? alloc() : choice < 5 ? free() : choice == 5 ? share() : choice == 6 ? look() : swap();
    }
    bool agrees() {
        uint32_t blocks = 0, segments = 0;
        DFHEAP_State(heap, &blocks, &segments);
        return expect(blocks == model.blocks.size() && segments == model.segments.size(), "state") &&
               expect(DFHEAP_LargestAvail(heap) == model.largest(), "largest") &&
               expect(DFHEAP_TotalFree(heap) == model.free(), "free bytes") &&
               expect(DFHEAP_TotalUsed(heap) == model.length - model.free(), "used bytes") &&
               expect(_DFHEAP_Check(heap) == 0, "a rule of the heap is broken");
    }
};

} // namespace

std::string driveHeap(std::span<const uint8_t> input, bool refuseMap) {
    Run run{{input}, {}, nullptr, {}};
    const LogCapture log; // null addresses and refused maps are told
    const uint64_t counted = phys_allocs;
    uint64_t base = 0, length = 0, offset = 0;
    uint32_t granule = 0, smallest = 0;
    const bool fits = run.geometry(base, length, offset, granule, smallest);
    failNth(refuseMap ? 3 : 0);
    run.heap = DFHEAP_Create(offset, base, length, granule, smallest);
    failNth(0);
    if (!run.expect((run.heap != nullptr) == fits, "create")) { return run.error; }
    if (!fits) { return ""; }
    int number = 0;
    bool going = run.agrees();
    for (; going && !run.input.left.empty(); ++number) { going = run.step() && run.agrees(); }
    while (going && !run.model.blocks.empty()) { // everything back: one segment is left
        const uint64_t addr = run.model.blocks.begin()->first;
        if (DFHEAP_Free(run.heap, addr, nullptr) == 0) { run.model.release(addr); }
        going = run.agrees();
    }
    going = going && run.expect(DFHEAP_LargestAvail(run.heap) == run.model.length, "all free") &&
            run.expect(phys_allocs == counted, "phys_allocs");
    DFHEAP_Destroy(run.heap);
    return going ? "" : run.error + " at operation " + std::to_string(number);
}
