// Sharing blocks, and looking at them from any address inside.
#include "heap.h"

#include "util/hold.h"

#include <utility>

namespace brenvole {

namespace {

struct Pair {
    PHALLOC *first = nullptr;
    PHALLOC *second = nullptr;
};

// Lock held. Without a map one walk serves both addresses.
Pair findBoth(DFHEAP *heap, uint64_t addr1, uint64_t addr2) {
    if (heap->ppChunkMap != nullptr) {
        PHALLOC *const first = _DFHEAP_FindAlloc(heap, addr1);
        return {first, _DFHEAP_FindAlloc(heap, addr2)};
    }
    Pair found;
    for (d_ListNode *node = d_ListHead(&heap->AllocList);
         node != nullptr && (found.first == nullptr || found.second == nullptr); node = d_ListNext(node)) {
        PHALLOC *const record = physRecord(node);
        if (found.first == nullptr && physHolds(record, addr1)) {
            found.first = record;
        }
        if (found.second == nullptr && physHolds(record, addr2)) {
            found.second = record;
        }
    }
    return found;
}

} // namespace

uint64_t DFHEAP_BytesFrom(DFHEAP *heap, uint64_t addr) {
    if (heap == nullptr) {
        return 0;
    }
    const QXHold hold(heap->Lock);
    const PHALLOC *const record = _DFHEAP_FindAlloc(heap, addr);
    return record != nullptr ? record->qwSize - (addr - record->lpAddr) : 0;
}

int32_t DFHEAP_AddRefTrace(DFHEAP *heap, uint64_t addr, uint64_t *owner, [[maybe_unused]] const char *msgarea,
                           [[maybe_unused]] uint32_t line) {
    if (heap == nullptr || addr == 0) {
        return -1;
    }
    const QXHold hold(heap->Lock);
    if (owner != nullptr) {
        *owner = 0;
    }
    PHALLOC *const record = _DFHEAP_FindAlloc(heap, addr);
    if (record == nullptr) {
        return -1;
    }
    if (record->lRefCount < 1) {
        ErrOut("DFHEAP_AddRef: refcount corrupt (%d) for alloc at 0x%p", record->lRefCount,
               reinterpret_cast<void *>(record->lpAddr));
        return -1;
    }
    // The trace writes its row here, as the others below do on their ways out.
    qxOSInterlockedIncrement(&record->lRefCount);
    if (owner != nullptr) {
        *owner = record->pOwner; // who allocated it, still
    }
    return 0;
}

uint32_t DFHEAP_FindAllocTrace(DFHEAP *heap, const uint64_t *pAddr, [[maybe_unused]] const char *msgarea,
                               [[maybe_unused]] uint32_t line) {
    if (heap == nullptr || pAddr == nullptr || *pAddr == 0) {
        return 0;
    }
    const QXHold hold(heap->Lock);
    const PHALLOC *const record = _DFHEAP_FindAlloc(heap, *pAddr);
    return record != nullptr ? static_cast<uint32_t>(*pAddr) - static_cast<uint32_t>(record->lpAddr) : 0;
}

int32_t DFHEAP_FixAllocTrace(DFHEAP *heap, uint64_t *pAddr, [[maybe_unused]] const char *msgarea,
                             [[maybe_unused]] uint32_t line) {
    if (heap == nullptr || pAddr == nullptr || *pAddr == 0) {
        return -1;
    }
    const QXHold hold(heap->Lock);
    const PHALLOC *const record = _DFHEAP_FindAlloc(heap, *pAddr);
    if (record == nullptr) {
        return -1;
    }
    *pAddr = record->lpAddr;
    return 0;
}

int32_t DFHEAP_SwapRefTrace(DFHEAP *heap, uint64_t addr1, uint64_t owner1, uint64_t addr2, uint64_t owner2,
                            [[maybe_unused]] const char *msgarea, [[maybe_unused]] uint32_t line) {
    if (heap == nullptr || addr1 == 0) {
        return -1;
    }
    const QXHold hold(heap->Lock);
    const Pair found = findBoth(heap, addr1, addr2);
    if (found.first == nullptr || found.second == nullptr) {
        return -1;
    }
    std::swap(found.first->lRefCount, found.second->lRefCount);
    found.first->pOwner = owner2; // in this order: in one block owner1 stays
    found.second->pOwner = owner1;
    return 0;
}

} // namespace brenvole

using namespace brenvole;

int32_t DFHEAP_AddRef(DFHEAP *heap, uintptr_t addr, uint64_t *owner) {
    return DFHEAP_AddRefTrace(heap, addr, owner, nullptr, 0);
}

uint32_t DFHEAP_FindAlloc(DFHEAP *heap, const uintptr_t *pAddr) {
    return DFHEAP_FindAllocTrace(heap, pAddr, nullptr, 0);
}

int32_t DFHEAP_FixAlloc(DFHEAP *heap, uintptr_t *pAddr) { return DFHEAP_FixAllocTrace(heap, pAddr, nullptr, 0); }

int32_t DFHEAP_SwapRef(DFHEAP *heap, uintptr_t addr1, uint64_t owner1, uintptr_t addr2, uint64_t owner2) {
    return DFHEAP_SwapRefTrace(heap, addr1, owner1, addr2, owner2, nullptr, 0);
}
