// Carving a block out of the free segments.
//
// Small requests are served from the top of the region downwards, larger ones from the bottom upwards, so that the
// two kinds gather at opposite ends with the free space between them: small blocks never stand in the middle of
// what a picture needs. The search is first fit from the chosen end.
#include "heap.h"

#include "local/block_memory.h"
#include "local/counters.h"
#include "trace/trace.h"
#include "util/guard.h"
#include "util/hold.h"

#include <algorithm>

namespace brenvole {

namespace {

// Why there is no block, as the trace tells it.
struct NoBlock {
    const char *action;
    const char *detail;
};
constexpr NoBlock kNoFree{"phys_alloc_no_free", "no free list entries"};
constexpr NoBlock kNoFit{"phys_alloc_no_fit", "no free segment large enough"};
constexpr NoBlock kNoRecord{"phys_alloc_descriptor_failed", "unable to allocate or remove PHALLOC descriptor"};
constexpr NoBlock kException{"phys_alloc_exception", "exception in DFHEAP_Alloc"};

// What the guarded work shares with the recovery from a fault. `record` is the new block's; until it stands on
// AllocList it is ours alone.
struct Carving {
    DFHEAP *heap;
    uint64_t size; // rounded, with the guard
    uint64_t owner;
    PHALLOC *volatile segment = nullptr; // the one that is cut, once its fields have changed
    PHALLOC *volatile record = nullptr;
    volatile bool listLocked = false;
    volatile bool whole = false; // the record is a segment that was taken off FreeList
    volatile bool done = false;
    const NoBlock *volatile noBlock = &kException; // unless the work says otherwise, or ends well

    bool fromBottom() const { return size > heap->qwSmallest; }
};

PHALLOC *findSegment(const Carving &carving) {
    if (freeIndexReady(carving.heap)) {
        return freeIndexFit(carving.heap, carving.size, carving.fromBottom());
    }
    d_List *const list = &carving.heap->FreeList;
    const bool upwards = carving.fromBottom();
    d_ListNode *node = upwards ? d_ListHead(list) : d_ListTail(list);
    while (node != nullptr && physRecord(node)->qwSize < carving.size) {
        node = upwards ? d_ListNext(node) : d_ListPrev(node);
    }
    return physRecord(node);
}

// The cached figure is no longer sure if the segment was the largest, alone or tied.
void noteCut(DFHEAP *heap, uint64_t was) {
    if (heap->bLargestValid != 0 && was >= heap->qwLargestFree) {
        heap->bLargestValid = 0;
    }
}

// The segment's own record becomes the block's.
bool takeWhole(Carving &carving, PHALLOC *segment) {
    const uint64_t was = segment->qwSize;
    physTouchAround(&segment->Node);
    carving.whole = true;
    carving.record = segment; // from here on, should the list let it go and fault
    if (d_ListRemove(&carving.heap->FreeList, &segment->Node) == nullptr) {
        freeIndexSpoil(carving.heap); // who knows what the list has done
        carving.record = nullptr;
        return false;
    }
    freeIndexRemove(carving.heap, segment);
    segment->pOwner = carving.owner;
    segment->lRefCount = 1;
    noteCut(carving.heap, was);
    return true;
}

// FreeList locked. Moves one end of the segment into the new record; the segment keeps its place on the list.
void cut(Carving &carving, PHALLOC *segment, PHALLOC *record) {
    const uint64_t rest = segment->qwSize - carving.size;
    const uint64_t skip = carving.fromBottom() ? 0 : rest;
    const uint64_t from = segment->lpAddr;
    record->qwOffset = segment->qwOffset + skip;
    record->lpAddr = segment->lpAddr + skip;
    record->qwSize = carving.size;
    record->lRefCount = 1;
    record->pOwner = carving.owner;
    if (carving.fromBottom()) {
        segment->qwOffset += carving.size;
        segment->lpAddr += carving.size;
    }
    segment->qwSize = rest;
    carving.segment = segment;
    freeIndexChange(carving.heap, from, segment);
    _DFHEAP_MarkChunks(carving.heap, record->lpAddr, record->qwSize, record);
}

bool split(Carving &carving, PHALLOC *segment) {
    const uint64_t was = segment->qwSize;
    auto *const record = static_cast<PHALLOC *>(QXAlloc(sizeof(PHALLOC)));
    if (record == nullptr) {
        ErrOut("No memory to allocate new PHALLOC (%d)", static_cast<uint32_t>(sizeof(PHALLOC)));
        return false;
    }
    carving.record = record;
    physInitRecord(record);
    d_ListLock(&carving.heap->FreeList);
    carving.listLocked = true;
    cut(carving, segment, record);
    noteCut(carving.heap, was);
    carving.listLocked = false;
    d_ListUnLock(&carving.heap->FreeList);
    return true;
}

// The guarded part: search, cut, list, counter.
void carve(Carving &carving) {
    PHALLOC *const segment = findSegment(carving);
    if (segment == nullptr) {
        carving.noBlock = d_ListHead(&carving.heap->FreeList) == nullptr ? &kNoFree : &kNoFit;
        return;
    }
    const bool exact = segment->qwSize - carving.size < carving.heap->qwGranularity;
    if (!(exact ? takeWhole(carving, segment) : split(carving, segment))) {
        carving.noBlock = &kNoRecord;
        return;
    }
    physTouchTail(&carving.heap->AllocList);
    d_ListAddTail(&carving.heap->AllocList, &carving.record->Node);
    if (!physStandsOn(carving.record, &carving.heap->AllocList)) {
        carving.noBlock = &kNoRecord;
        return;
    }
    phys_allocs.fetch_add(1, std::memory_order_relaxed);
    carving.done = true;
}

// Gives a cut end back to its segment.
void undoCut(const Carving &carving) {
    PHALLOC *const segment = carving.segment;
    PHALLOC *const record = carving.record;
    if (record->lpAddr < segment->lpAddr) {
        segment->qwOffset = record->qwOffset;
        segment->lpAddr = record->lpAddr;
    }
    segment->qwSize += record->qwSize;
    _DFHEAP_MarkChunks(carving.heap, record->lpAddr, record->qwSize, segment);
}

// After a fault, or where AllocList hasn't taken the record. The caller is told of an ordinary failure, so the block
// must not stay taken, nor a record be lost.
void recover(Carving &carving) {
    freeIndexSpoil(carving.heap);
    if (carving.listLocked) {
        qxGuarded([&] { d_ListUnLock(&carving.heap->FreeList); });
    }
    PHALLOC *const record = carving.record;
    if (record == nullptr) {
        return;
    }
    if (physStandsOn(record, &carving.heap->AllocList)) {
        qxGuarded([&] { d_ListRemove(&carving.heap->AllocList, &record->Node); });
    }
    if (physStandsOn(record, &carving.heap->AllocList)) { // it won't leave: then it is a block
        phys_allocs.fetch_add(1, std::memory_order_relaxed);
        carving.done = true;
        return;
    }
    if (carving.whole && physStandsOn(record, &carving.heap->FreeList)) { // it hasn't left
        return;
    }
    if (carving.whole) {
        Placing placing{carving.heap, record};
        physFinishPlacing(placing);
        return;
    }
    qxGuarded([&] {
        if (carving.segment != nullptr) {
            undoCut(carving);
        }
        QXFree(record); // not if the map may still name it
    });
}

} // namespace

uint64_t DFHEAP_AllocTrace(DFHEAP *heap, uint64_t *size, uint64_t owner, uint64_t *physOffset, const char *msgarea,
                           uint32_t line) {
    const uint64_t wanted = *size;
    const auto problem = [&](const NoBlock &noBlock, uint64_t rounded) {
        TraceProblem(noBlock.action, tracePointer(owner), nullptr, wanted, rounded, 0, msgarea, line, noBlock.detail);
        return uint64_t{0};
    };
    if (heap == nullptr) {
        return problem({"phys_alloc_no_heap", "DFHEAP_Alloc called with NULL heap"}, 0);
    }
    if (wanted == 0) {
        ErrOut("DFHEAP_Alloc called with zero size");
        return problem({"phys_alloc_zero", "DFHEAP_Alloc called with zero size"}, 0);
    }
    constexpr NoBlock kOverflow{"phys_alloc_size_overflow", "allocation size alignment overflow"};
    const uint64_t granule = physRead(heap->qwGranularity);
    if (!physRoundUp(*size, granule)) {
        return problem(kOverflow, 0);
    }
    Carving carving{heap, *size, owner};
    {
        const QXHold hold(heap->Lock);
        if (heap->qwGranularity != granule) { // another thread has resized the heap
            uint64_t again = wanted;
            if (!physRoundUp(again, heap->qwGranularity)) {
                *size = wanted;
                return problem(kOverflow, 0);
            }
            *size = again;
        }
        carving.size = *size + std::min<uint64_t>(heap->dwGuard, UINT64_MAX - *size);
        if (qxGuarded([&] { carve(carving); }) && (carving.done || carving.record == nullptr)) {
            physAssertSound(heap);
        } else if (!carving.done) {
            recover(carving);
        }
    }
    if (!carving.done) {
        return problem(*carving.noBlock, *size);
    }
    const PHALLOC *const record = carving.record; // nobody else knows the block yet
    if (physOffset != nullptr) {
        *physOffset = record->qwOffset;
    }
    const uint64_t addr = record->lpAddr;
    if (heap->bRegionOurs != 0) {
        blockMemoryHandOut(physMemoryOf(heap, record, msgarea, line));
    }
    whenTracing([&] {
        traceRecordAlloc("phys", tracePointer(owner), tracePointer(addr), tracePointer(addr), wanted, record->qwSize,
                         record->lRefCount, msgarea, line, "DFHEAP_Alloc");
    });
    return addr;
}

} // namespace brenvole

uintptr_t DFHEAP_Alloc(DFHEAP *heap, uint64_t *size, uint64_t owner, uint64_t *physOffset) {
    return brenvole::DFHEAP_AllocTrace(heap, size, owner, physOffset, nullptr, 0);
}
