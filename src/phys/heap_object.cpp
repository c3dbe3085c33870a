// The heap itself: its geometry, how it is made, laid over another region, looked at and ended.
#include "heap.h"

#include "local/counters.h"
#include "trace/trace.h"
#include "util/hold.h"

#include <bit>

namespace brenvole {

namespace {

// What the guard words of a phys record hold: the digits 1 to 6, each a hexadecimal place higher than the last.
constexpr uint32_t kPhysGuard1 = 0x1;
constexpr uint32_t kPhysGuard2 = 0x20;
constexpr uint32_t kPhysGuard3 = 0x300;
constexpr uint32_t kPhysGuard4 = 0x4000;
constexpr uint32_t kPhysGuard5 = 0x50000;
constexpr uint32_t kPhysGuard6 = 0x600000;

// Lays one free segment over the whole region.
void coverRegion(const DFHEAP *heap, PHALLOC *record) {
    record->qwOffset = heap->qwPhysOffset;
    record->lpAddr = heap->lpBase;
    record->qwSize = heap->qwLength;
    record->lRefCount = 0;
    record->pOwner = 0;
}

// Writes to the heap only after every test has passed. Offset and base are rounded each on its own account.
bool _DFHEAP_SetGeometry(uint64_t physOffset, uint64_t base, uint64_t length, uint64_t granularity, DFHEAP *heap) {
    if (base == 0 || length == 0 || granularity == 0 || heap == nullptr) {
        return false;
    }
    uint64_t first = base;
    if (!physRoundUp(physOffset, granularity) || !physRoundUp(first, granularity)) {
        return false;
    }
    const uint64_t lost = first - base;
    if (lost >= length) {
        return false;
    }
    const uint64_t usable = (length - lost) / granularity * granularity;
    if (usable == 0) {
        return false;
    }
    heap->qwPhysOffset = physOffset;
    physWrite(heap->lpBase, first);
    physWrite(heap->qwGranularity, granularity);
    heap->dwShift =
        std::has_single_bit(granularity) ? static_cast<uint32_t>(std::countr_zero(granularity)) : kNoShift;
    physWrite(heap->qwLength, usable);
    return true;
}

bool initLists(DFHEAP *heap) { return d_ListInit(&heap->FreeList) != 0 && d_ListInit(&heap->AllocList) != 0; }

// The part of DFHEAP_Create that may be refused once both records are there.
bool layOut(DFHEAP *heap, PHALLOC *record, uint64_t physOffset, uint64_t base, uint64_t length, uint32_t granularity,
            uint32_t smallest) {
    if (_DFHEAP_SetGeometry(physOffset, base, length, granularity, heap)) {
        heap->qwSmallest = smallest;
        physInitRecord(record);
        coverRegion(heap, record);
        if (d_ListAddHead(&heap->FreeList, &record->Node) != 0) {
            return true;
        }
    }
    d_ListClose(&heap->FreeList);
    d_ListClose(&heap->AllocList);
    return false;
}

// Empties a list; each record is shown to `report` before it goes.
template <class Report> void releaseAll(d_List *list, const Report &report) {
    d_ListLock(list);
    while (d_ListCount(list) != 0) {
        d_ListNode *const node = d_ListRemoveHead(list);
        if (node == nullptr) { // another QXUtil's list that won't give up its records
            break;
        }
        try {
            report(physRecord(node));
        } catch (...) { // a sink's exception, or its thread's end
            QXFree(node);
            d_ListUnLock(list);
            throw;
        }
        QXFree(node);
    }
    d_ListUnLock(list);
}

} // namespace

void physInitRecord(PHALLOC *record) {
    d_ListInitNode(&record->Node);
    record->dwGuard1 = kPhysGuard1;
    record->dwGuard2 = kPhysGuard2;
    record->dwGuard3 = kPhysGuard3;
    record->dwGuard4 = kPhysGuard4;
    record->dwGuard5 = kPhysGuard5;
    record->dwGuard6 = kPhysGuard6;
    record->pSelf = record;
    record->cTag = 'D';
}

int32_t DFHEAP_Contains(const DFHEAP *heap, uint64_t addr) {
    if (heap == nullptr || addr == 0) {
        return 0;
    }
    const uint64_t base = physRead(heap->lpBase);
    return addr >= base && addr - base < physRead(heap->qwLength) ? 1 : 0;
}

} // namespace brenvole

using namespace brenvole;

DFHEAP *DFHEAP_Create(uint64_t physOffset, uintptr_t base, uint64_t length, uint32_t granularity, uint32_t smallest) {
    auto *const heap = static_cast<DFHEAP *>(QXAlloc(sizeof(DFHEAP))); // both, before either is looked at
    auto *const record = static_cast<PHALLOC *>(QXAlloc(sizeof(PHALLOC)));
    const bool made = heap != nullptr && record != nullptr && initLists(heap) &&
                      layOut(heap, record, physOffset, base, length, granularity, smallest);
    if (!made) {
        if (record != nullptr) {
            QXFree(record);
        }
        if (heap != nullptr) {
            QXFree(heap);
        }
        return nullptr;
    }
    heap->ppChunkMap = nullptr;
    heap->qwChunkCount = 0;
    _DFHEAP_RebuildChunkMap(heap, record);
    freeIndexInit(heap);
    heap->qwLargestFree = record->qwSize;
    heap->bLargestValid = 1;
    heap->bRegionOurs = 0;
    heap->dwGuard = 0;
    qxOSInitializeCriticalSection(&heap->Lock);
    forkLockEnter(heap->Fork, heap->Lock);
    return heap;
}

int32_t DFHEAP_Resize(DFHEAP *heap, uint64_t physOffset, uintptr_t base, uint64_t length, uint32_t granularity,
                      uint32_t smallest) {
    if (heap == nullptr) {
        return -1;
    }
    const QXHold hold(heap->Lock);
    if (d_ListCount(&heap->AllocList) != 0 || d_ListCount(&heap->FreeList) > 1) {
        return -1;
    }
    d_ListNode *const head = d_ListHead(&heap->FreeList);
    if (head == nullptr || !_DFHEAP_SetGeometry(physOffset, base, length, granularity, heap)) {
        return -1;
    }
    heap->qwSmallest = smallest;
    PHALLOC *const record = physRecord(head);
    coverRegion(heap, record);
    freeIndexReset(heap); // first: what follows may leave by an exception
    _DFHEAP_RebuildChunkMap(heap, record);
    heap->qwLargestFree = record->qwSize;
    heap->bLargestValid = 1;
    physAssertSound(heap);
    return 0;
}

int32_t DFHEAP_State(DFHEAP *heap, uint32_t *allocCount, uint32_t *freeCount) {
    if (heap == nullptr) {
        return -1;
    }
    if (allocCount != nullptr) {
        *allocCount = d_ListCount(&heap->AllocList);
    }
    if (freeCount != nullptr) {
        *freeCount = d_ListCount(&heap->FreeList);
    }
    return 0;
}

int32_t DFHEAP_Lock(DFHEAP *heap, int32_t lock) {
    if (heap == nullptr) {
        return -1;
    }
    if (lock != 0) {
        qxOSEnterCriticalSection(&heap->Lock);
    } else {
        qxOSLeaveCriticalSection(&heap->Lock);
    }
    return 0;
}

namespace brenvole {

namespace {

void reportLeak(const PHALLOC *leak) {
    ErrOut("\nMemory found not free'ed size %d", static_cast<uint32_t>(leak->qwSize));
    TraceProblem("phys_destroy_outstanding", tracePointer(leak->pOwner), tracePointer(leak->lpAddr), 0, leak->qwSize,
                 leak->lRefCount, "brenvole", 0, "DFHEAP_Destroy found allocation still active");
}

void reportCounters() {
    ErrOut("Net DFrames Allocated in brenvole %I64u (bytes = %I64u) phys heap allocations %I64u local heap "
           "allocations %I64u",
           dframes.load(), dframe_bytes.load(), phys_allocs.load(), local_allocs.load());
}

} // namespace

void DFHEAP_ReportAtExit(DFHEAP *heap) {
    TraceSnapshot("DFHEAP_Destroy");
    {
        const QXHold hold(heap->Lock);
        for (d_ListNode *node = d_ListHead(&heap->AllocList); node != nullptr; node = d_ListNext(node)) {
            reportLeak(physRecord(node));
        }
    }
    reportCounters();
}

} // namespace brenvole

namespace {

// The end of a heap's records: what is left on the lists, and all that has no report.
void releaseRecords(DFHEAP *heap) {
    const auto silently = [](const PHALLOC *) {};
    releaseAll(&heap->FreeList, silently);
    releaseAll(&heap->AllocList, silently);
    d_ListClose(&heap->FreeList);
    d_ListClose(&heap->AllocList);
    if (heap->ppChunkMap != nullptr) {
        QXFree(heap->ppChunkMap);
    }
    freeIndexClose(heap);
    QXFree(heap);
}

} // namespace

void DFHEAP_Destroy(DFHEAP *heap) {
    if (heap == nullptr) {
        return;
    }
    TraceSnapshot("DFHEAP_Destroy");
    forkLockLeave(heap->Fork);
    qxOSDeleteCriticalSection(&heap->Lock); // nobody else is in the family for this heap
    releaseAll(&heap->FreeList, [](const PHALLOC *) {});
    try {
        releaseAll(&heap->AllocList, reportLeak);
    } catch (...) {
        releaseRecords(heap);
        throw;
    }
    releaseRecords(heap);
    reportCounters();
}
