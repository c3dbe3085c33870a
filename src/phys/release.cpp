// Dropping references, and returning a block to the free segments, merged with what it touches.
#include "heap.h"

#include "local/counters.h"
#include "trace/trace.h"
#include "util/guard.h"
#include "util/hold.h"

namespace brenvole {

namespace {

void lockFreeList(Placing &placing) {
    d_ListLock(&placing.heap->FreeList);
    placing.listLocked = true;
}

void unlockFreeList(Placing &placing) {
    placing.listLocked = false;
    d_ListUnLock(&placing.heap->FreeList);
}

// True if a range ends where another begins, below 2^64.
bool touches(uint64_t lowAddr, uint64_t lowSize, uint64_t highAddr) {
    return lowAddr != 0 && highAddr != 0 && lowAddr <= UINT64_MAX - lowSize && lowAddr + lowSize == highAddr;
}

bool wouldOverflow(const PHALLOC *one, const PHALLOC *other) { return one->qwSize > UINT64_MAX - other->qwSize; }

enum class Walk { placed, refused, notTaken };

// Stamps the range of a record that has become part of `segment`, and gives the record back.
void giveBackSpent(Placing &placing, PHALLOC *segment) {
    PHALLOC *const record = placing.spent;
    _DFHEAP_MarkChunks(placing.heap, record->lpAddr, record->qwSize, segment);
    placing.spent = nullptr; // not twice, should QXFree fault
    QXFree(record);
}

// Adds the loose record to the segment on the list that it touches, above it or below it. The record goes.
Walk join(Placing &placing, PHALLOC *segment, bool recordIsBelow) {
    PHALLOC *const record = placing.loose;
    if (wouldOverflow(segment, record)) {
        return Walk::refused;
    }
    lockFreeList(placing);
    const uint64_t from = segment->lpAddr;
    if (recordIsBelow) {
        segment->qwOffset = record->qwOffset;
        segment->lpAddr = record->lpAddr;
    }
    segment->qwSize += record->qwSize;
    placing.segment = segment;
    placing.spent = record;
    placing.loose = nullptr;
    freeIndexChange(placing.heap, from, segment);
    unlockFreeList(placing);
    giveBackSpent(placing, segment);
    return Walk::placed;
}

// The loose record should stand on the list now.
Walk stands(Placing &placing) {
    if (!physStandsOn(placing.loose, &placing.heap->FreeList)) {
        return Walk::notTaken;
    }
    placing.segment = placing.loose;
    placing.loose = nullptr;
    freeIndexAdd(placing.heap, placing.segment);
    return Walk::placed;
}

// The segment on FreeList that covers a granule, or null.
PHALLOC *freeAt(const DFHEAP *heap, uint64_t chunk) {
    PHALLOC *const record = physMapped(heap, chunk);
    return physStandsOn(record, &heap->FreeList) ? record : nullptr;
}

// What the merge walk comes to, without walking: the map knows what lies on both sides of the record, and the index
// the segment in front of it. A walk would meet the lower neighbour first.
Walk mergeByIndex(Placing &placing) {
    DFHEAP *const heap = placing.heap;
    PHALLOC *const record = placing.loose;
    const uint64_t first = physGranules(heap, record->lpAddr - heap->lpBase);
    const uint64_t end = first + physGranules(heap, record->qwSize);
    PHALLOC *const below = first != 0 ? freeAt(heap, first - 1) : nullptr;
    PHALLOC *const above = end != heap->qwChunkCount ? freeAt(heap, end) : nullptr;
    if (below != nullptr || above != nullptr) {
        return below != nullptr ? join(placing, below, false) : join(placing, above, true);
    }
    PHALLOC *const prev = freeIndexBefore(heap, record->lpAddr);
    if (prev == nullptr) {
        physTouchHead(&heap->FreeList);
        d_ListAddHead(&heap->FreeList, &record->Node);
    } else if (&prev->Node == d_ListTail(&heap->FreeList)) {
        physTouchTail(&heap->FreeList);
        d_ListAddTail(&heap->FreeList, &record->Node);
    } else {
        physTouchAround(&prev->Node);
        d_ListInsert(&heap->FreeList, &prev->Node, &record->Node);
    }
    return stands(placing);
}

// The merge walk: finds the place of the loose record. A block that lies below every segment and touches none is
// known for that only at the end of the walk.
Walk mergeWalk(Placing &placing) {
    d_List *const list = &placing.heap->FreeList;
    PHALLOC *const record = placing.loose;
    const uint64_t addr = record->lpAddr;
    d_ListNode *node = d_ListHead(list);
    if (node == nullptr) {
        d_ListAddHead(list, &record->Node);
        return stands(placing);
    }
    PHALLOC *prev = physRecord(node);
    for (; node != nullptr; node = d_ListNext(node)) {
        PHALLOC *const cur = physRecord(node);
        if (touches(addr, record->qwSize, cur->lpAddr)) {
            return join(placing, cur, true);
        }
        if (touches(cur->lpAddr, cur->qwSize, addr)) {
            return join(placing, cur, false);
        }
        if (prev->lpAddr < addr && cur->lpAddr > addr) { // never at the head, where prev is cur
            physTouchAround(&prev->Node);
            d_ListInsert(list, &prev->Node, &record->Node);
            return stands(placing);
        }
        prev = cur;
    }
    physTouchTail(list);
    if (addr >= prev->lpAddr) {
        d_ListAddTail(list, &record->Node);
    } else {
        d_ListAddHead(list, &record->Node);
    }
    return stands(placing);
}

// Adds `high` to `low`, its neighbour on FreeList that it touches; `high` goes. A list that won't let it go keeps
// both as they were.
Walk joinNeighbours(Placing &placing, PHALLOC *low, PHALLOC *high) {
    if (wouldOverflow(low, high)) {
        return Walk::refused;
    }
    physTouchAround(&high->Node);
    lockFreeList(placing);
    placing.low = low;
    placing.high = high;
    low->qwSize += high->qwSize;
    const bool left = d_ListRemove(&placing.heap->FreeList, &high->Node) != nullptr;
    placing.high = nullptr;
    if (left) {
        freeIndexRemove(placing.heap, high);
        freeIndexChange(placing.heap, low->lpAddr, low);
        placing.segment = low;
        placing.spent = high;
        giveBackSpent(placing, low);
    } else {
        low->qwSize -= high->qwSize;
        freeIndexSpoil(placing.heap);
    }
    unlockFreeList(placing);
    return Walk::placed;
}

// Looks once at both sides of the segment, which may have got a new neighbour on either.
Walk neighbourStep(Placing &placing) {
    PHALLOC *const segment = placing.segment;
    PHALLOC *const before = physRecord(d_ListPrev(&segment->Node));
    PHALLOC *const behind = physRecord(d_ListNext(&segment->Node));
    if (before != nullptr && touches(before->lpAddr, before->qwSize, segment->lpAddr) &&
        joinNeighbours(placing, before, segment) == Walk::refused) {
        return Walk::refused;
    }
    PHALLOC *const low = placing.segment;
    if (behind != nullptr && touches(low->lpAddr, low->qwSize, behind->lpAddr)) {
        return joinNeighbours(placing, low, behind);
    }
    return Walk::placed;
}

} // namespace

void physUncountAlloc() {
    uint64_t count = phys_allocs.load(std::memory_order_relaxed);
    while (count != 0 && !phys_allocs.compare_exchange_weak(count, count - 1, std::memory_order_relaxed)) {
    }
}

namespace {

void traceRecord(const Placing &placing, const char *action, const PHALLOC *record, const char *detail) {
    TraceProblem(action, tracePointer(record->pOwner), tracePointer(record->lpAddr), 0, record->qwSize,
                 record->lRefCount, placing.msgarea, placing.line, detail);
}

} // namespace

int32_t _DFHEAP_PlaceFree(Placing &placing) {
    DFHEAP *const heap = placing.heap;
    Walk walked = Walk::placed;
    if (placing.loose != nullptr) {
        walked = freeIndexReady(heap) ? mergeByIndex(placing) : mergeWalk(placing);
    }
    if (walked == Walk::refused) {
        freeIndexSpoil(heap);
        traceRecord(placing, "phys_free_size_overflow", placing.loose, "free list merge size overflow");
        heap->bLargestValid = 0;
        physTouchTail(&heap->FreeList);
        d_ListAddTail(&heap->FreeList, &placing.loose->Node); // whatever its address
        stands(placing);
        return -1;
    }
    if (walked == Walk::notTaken) {
        return 0;
    }
    if (neighbourStep(placing) == Walk::refused) {
        traceRecord(placing, "phys_free_size_overflow", placing.segment, "free list coalesce size overflow");
        heap->bLargestValid = 0;
        return -1;
    }
    if (placing.segment->qwSize > heap->qwLargestFree) {
        heap->qwLargestFree = placing.segment->qwSize;
    }
    return 0;
}

namespace {

// Two neighbours whose joining a fault has stopped: undone if the upper one is still listed, else brought to its end.
void finishJoining(Placing &placing) {
    PHALLOC *const high = placing.high;
    placing.high = nullptr;
    if (physStandsOn(high, &placing.heap->FreeList)) {
        placing.low->qwSize -= high->qwSize;
        return;
    }
    placing.segment = placing.low;
    placing.spent = high;
}

// Brings what a fault has stopped half-way to a state in which the lists are true.
void settle(Placing &placing) {
    if (placing.high != nullptr) {
        finishJoining(placing);
    }
    if (placing.listLocked) {
        qxGuarded([&] { unlockFreeList(placing); });
    }
    if (placing.spent != nullptr) {
        qxGuarded([&] { giveBackSpent(placing, placing.segment); });
    }
    if (placing.loose != nullptr) {
        stands(placing); // if the fault came behind the linking
    }
}

} // namespace

void physFinishPlacing(Placing &placing) {
    DFHEAP *const heap = placing.heap;
    freeIndexSpoil(heap);
    settle(placing);
    if (placing.loose == nullptr && placing.segment == nullptr) {
        return;
    }
    if (!qxGuarded([&] { _DFHEAP_PlaceFree(placing); })) {
        heap->bLargestValid = 0;
        freeIndexSpoil(heap); // the second try may have made it anew
        settle(placing);
    }
    if (placing.loose != nullptr) { // the list can't be walked: at its end, out of order, but not lost
        heap->bLargestValid = 0;
        freeIndexSpoil(heap);
        qxGuarded([&] {
            physTouchTail(&heap->FreeList);
            d_ListAddTail(&heap->FreeList, &placing.loose->Node);
        });
        stands(placing);
    }
}

namespace {

// Through volatile, so that no optimiser finds the reads useless. A node may lie across the border of two pages.
void touch(const volatile d_ListNode *node) {
    if (node != nullptr) {
        static_cast<void>(node->lpNext);
        static_cast<void>(node->lpList);
    }
}

} // namespace

void physTouchAround(d_ListNode *node) {
    touch(d_ListNext(node));
    touch(d_ListPrev(node));
}

void physTouchHead(d_List *list) { touch(d_ListHead(list)); }
void physTouchTail(d_List *list) { touch(d_ListTail(list)); }

namespace {

struct Freeing {
    Placing placing;
    uint64_t *owner;
    PHALLOC *volatile record = nullptr; // leaving AllocList, or gone from it
    volatile int32_t result = 0;
};

void traceFreed(const Freeing &freeing, const PHALLOC *record, int32_t count, const char *detail) {
    whenTracing([&] {
        traceRecordRelease("phys_free", "phys", tracePointer(record->pOwner), tracePointer(record->lpAddr), count,
                           freeing.placing.msgarea, freeing.placing.line, detail);
    });
}

// The block has left AllocList: its owner is told, and it no longer counts.
void noteReleased(Freeing &freeing) {
    if (freeing.owner != nullptr) {
        *freeing.owner = freeing.record->pOwner;
    }
    physUncountAlloc();
    freeing.placing.loose = freeing.record;
    freeing.record = nullptr;
    if (freeing.placing.heap->bRegionOurs != 0) {
        blockMemoryRelease(
            physMemoryOf(freeing.placing.heap, freeing.placing.loose, freeing.placing.msgarea, freeing.placing.line));
    }
    traceFreed(freeing, freeing.placing.loose, 0, "DFHEAP_Free release");
}

void traceMissed(const Freeing &freeing, const char *action, uint64_t addr, const char *detail) {
    TraceProblem(action, nullptr, tracePointer(addr), 0, 0, 0, freeing.placing.msgarea, freeing.placing.line, detail);
}

// Lock held. Drops one reference; the last one releases the block.
int32_t _DFHEAP_ActualFree(Freeing &freeing, uint64_t addr) {
    DFHEAP *const heap = freeing.placing.heap;
    if (freeing.owner != nullptr) {
        *freeing.owner = 0;
    }
    PHALLOC *const record = _DFHEAP_FindAlloc(heap, addr);
    if (record == nullptr) {
        traceMissed(freeing, "phys_free_missing", addr, "DFHEAP_Free allocation not found");
        return 0;
    }
    if (record->lRefCount < 1) {
        ErrOut("_DFHEAP_ActualFree: refcount corrupt (%d) for alloc at 0x%p", record->lRefCount,
               reinterpret_cast<void *>(record->lpAddr));
        traceRecord(freeing.placing, "phys_free_refcount_corrupt", record, "refcount below one");
        return -1;
    }
    if (record->lRefCount > 1) {
        qxOSInterlockedDecrement(&record->lRefCount);
        const int32_t left = record->lRefCount;
        traceFreed(freeing, record, left, "DFHEAP_Free deref");
        return left;
    }
    physTouchAround(&record->Node);
    freeing.record = record;
    if (d_ListRemove(&heap->AllocList, &record->Node) == nullptr) {
        freeing.record = nullptr;
        return 0;
    }
    noteReleased(freeing);
    return _DFHEAP_PlaceFree(freeing.placing);
}

// After a fault: a block that had left AllocList is released to its end, one that hadn't stays a block.
void recover(Freeing &freeing) {
    if (freeing.record != nullptr && !physStandsOn(freeing.record, &freeing.placing.heap->AllocList)) {
        noteReleased(freeing);
    }
    physFinishPlacing(freeing.placing);
}

} // namespace

int32_t DFHEAP_FreeTrace(DFHEAP *heap, uint64_t addr, uint64_t *owner, const char *msgarea, uint32_t line) {
    Freeing freeing{{.heap = heap, .msgarea = msgarea, .line = line}, owner};
    if (heap == nullptr) {
        traceMissed(freeing, "phys_free_no_heap", addr, "DFHEAP_Free called with NULL heap");
        return -1;
    }
    if (addr == 0) {
        ErrOut("DFHEAP_Free called with NULL memory pointer");
        traceMissed(freeing, "phys_free_null", 0, "DFHEAP_Free called with NULL memory pointer");
        return -1;
    }
    const QXHold hold(heap->Lock);
    const bool whole = qxGuarded([&] { freeing.result = _DFHEAP_ActualFree(freeing, addr); });
    if (!whole) {
        traceMissed(freeing, "phys_free_exception", addr, "exception in DFHEAP_Free"); // under Lock
        recover(freeing);
        return 0;
    }
    if (freeing.placing.loose != nullptr) {
        physFinishPlacing(freeing.placing);
    } else if (freeing.result >= 0) {
        physAssertSound(heap);
    }
    return freeing.result;
}

} // namespace brenvole

int32_t DFHEAP_Free(DFHEAP *heap, uintptr_t addr, uint64_t *owner) {
    return brenvole::DFHEAP_FreeTrace(heap, addr, owner, nullptr, 0);
}
