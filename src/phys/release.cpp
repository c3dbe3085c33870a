// Dropping references, and returning a block to the free segments, merged with what it touches.
#include "heap.h"

#include "local/counters.h"
#include "util/guard.h"

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

enum class Walk { placed, refused };

// Adds the loose record to the segment on the list that it touches, above it or below it. The record goes.
Walk join(Placing &placing, PHALLOC *segment, bool recordIsBelow) {
    PHALLOC *const record = placing.loose;
    if (wouldOverflow(segment, record)) {
        return Walk::refused;
    }
    lockFreeList(placing);
    if (recordIsBelow) {
        segment->qwOffset = record->qwOffset;
        segment->lpAddr = record->lpAddr;
    }
    segment->qwSize += record->qwSize;
    placing.segment = segment;
    placing.loose = nullptr;
    unlockFreeList(placing);
    _DFHEAP_MarkChunks(placing.heap, record->lpAddr, record->qwSize, segment);
    QXFree(record);
    return Walk::placed;
}

// The loose record stands on the list now.
Walk stands(Placing &placing) {
    placing.segment = placing.loose;
    placing.loose = nullptr;
    return Walk::placed;
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
            d_ListInsert(list, &prev->Node, &record->Node);
            return stands(placing);
        }
        prev = cur;
    }
    if (addr >= prev->lpAddr) {
        d_ListAddTail(list, &record->Node);
    } else {
        d_ListAddHead(list, &record->Node);
    }
    return stands(placing);
}

// Adds `high` to `low`, its neighbour on FreeList that it touches; `high` goes. It leaves the list before its range
// is counted elsewhere: a list that won't let it go keeps both as they are.
Walk joinNeighbours(Placing &placing, PHALLOC *low, PHALLOC *high) {
    if (wouldOverflow(low, high)) {
        return Walk::refused;
    }
    lockFreeList(placing);
    if (d_ListRemove(&placing.heap->FreeList, &high->Node) != nullptr) {
        low->qwSize += high->qwSize;
        placing.segment = low;
        _DFHEAP_MarkChunks(placing.heap, high->lpAddr, high->qwSize, low);
        QXFree(high);
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

int32_t _DFHEAP_PlaceFree(Placing &placing) {
    DFHEAP *const heap = placing.heap;
    if (placing.loose != nullptr && mergeWalk(placing) == Walk::refused) {
        heap->bLargestValid = 0;
        d_ListAddTail(&heap->FreeList, &placing.loose->Node); // whatever its address
        stands(placing);
        return -1;
    }
    if (neighbourStep(placing) == Walk::refused) {
        heap->bLargestValid = 0;
        return -1;
    }
    if (placing.segment->qwSize > heap->qwLargestFree) {
        heap->qwLargestFree = placing.segment->qwSize;
    }
    return 0;
}

void physFinishPlacing(Placing &placing) {
    if (placing.listLocked) {
        qxGuarded([&] { unlockFreeList(placing); });
    }
    if (placing.loose != nullptr && placing.loose->Node.lpList == &placing.heap->FreeList) {
        stands(placing); // the fault came behind the linking
    }
    if (placing.loose != nullptr || placing.segment != nullptr) {
        qxGuarded([&] { _DFHEAP_PlaceFree(placing); });
    }
    if (placing.listLocked) {
        qxGuarded([&] { unlockFreeList(placing); });
    }
}

namespace {

// Lock held. Drops one reference; the last one releases the block.
int32_t _DFHEAP_ActualFree(Placing &placing, uint64_t addr, uint64_t *owner) {
    DFHEAP *const heap = placing.heap;
    if (owner != nullptr) {
        *owner = 0;
    }
    PHALLOC *const record = _DFHEAP_FindAlloc(heap, addr);
    if (record == nullptr) {
        return 0;
    }
    if (record->lRefCount < 1) {
        ErrOut("_DFHEAP_ActualFree: refcount corrupt (%d) for alloc at 0x%p", record->lRefCount,
               reinterpret_cast<void *>(record->lpAddr));
        return -1;
    }
    if (record->lRefCount > 1) {
        qxOSInterlockedDecrement(&record->lRefCount);
        return record->lRefCount;
    }
    if (d_ListRemove(&heap->AllocList, &record->Node) == nullptr) {
        return 0;
    }
    placing.loose = record;
    if (owner != nullptr) {
        *owner = record->pOwner;
    }
    physUncountAlloc();
    return _DFHEAP_PlaceFree(placing);
}

} // namespace

int32_t DFHEAP_FreeTrace(DFHEAP *heap, uint64_t addr, uint64_t *owner, [[maybe_unused]] const char *msgarea,
                         [[maybe_unused]] uint32_t line) {
    if (heap == nullptr) {
        return -1;
    }
    if (addr == 0) {
        ErrOut("DFHEAP_Free called with NULL memory pointer");
        return -1;
    }
    Placing placing{heap};
    volatile int32_t result = 0;
    qxOSEnterCriticalSection(&heap->Lock);
    if (!qxGuarded([&] { result = _DFHEAP_ActualFree(placing, addr, owner); })) {
        physFinishPlacing(placing);
        result = 0;
    }
    physAssertSound(heap);
    qxOSLeaveCriticalSection(&heap->Lock);
    // The trace writes its row here.
    return result;
}

} // namespace brenvole

int32_t DFHEAP_Free(DFHEAP *heap, uintptr_t addr, uint64_t *owner) {
    return brenvole::DFHEAP_FreeTrace(heap, addr, owner, nullptr, 0);
}
