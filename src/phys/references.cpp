// Sharing blocks, and looking at them from any address inside.
#include "heap.h"

#include "trace/trace.h"
#include "util/hold.h"

#include <algorithm>
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

// What the trace tells of a block: copied while Lock is held, told when it is free again.
struct Told {
    uint64_t owner = 0;
    uint64_t addr = 0;
    uint64_t size = 0;
    int32_t count = 0;
};

struct Site {
    const char *msgarea;
    uint32_t line;
};

void traceTouched(const char *action, const Told &told, const Site &site, const char *detail) {
    TraceTouch(action, "phys", tracePointer(told.owner), tracePointer(told.addr), told.count, site.msgarea, site.line,
               detail);
}

void traceRefused(const char *action, const Told &told, const Site &site, const char *detail) {
    TraceProblem(action, tracePointer(told.owner), tracePointer(told.addr), 0, told.size, told.count, site.msgarea,
                 site.line, detail);
}

void traceSwapped(const PHALLOC *record, const Site &site, const char *detail) {
    TraceSwapOwner("phys_swapref_owner", "phys", tracePointer(record->pOwner), tracePointer(record->lpAddr),
                   record->lRefCount, site.msgarea, site.line, detail);
}

enum class AddRef { done, missing, corrupt };

AddRef addRef(DFHEAP *heap, uint64_t *owner, Told &told) {
    const QXHold hold(heap->Lock);
    if (owner != nullptr) {
        *owner = 0;
    }
    PHALLOC *const record = _DFHEAP_FindAlloc(heap, told.addr);
    if (record == nullptr) {
        return AddRef::missing;
    }
    const bool corrupt = record->lRefCount < 1;
    if (corrupt) {
        ErrOut("DFHEAP_AddRef: refcount corrupt (%d) for alloc at 0x%p", record->lRefCount,
               reinterpret_cast<void *>(record->lpAddr));
    } else {
        qxOSInterlockedIncrement(&record->lRefCount);
    }
    told = {record->pOwner, record->lpAddr, record->qwSize, record->lRefCount};
    if (!corrupt && owner != nullptr) {
        *owner = record->pOwner; // who allocated it, still
    }
    return corrupt ? AddRef::corrupt : AddRef::done;
}

// The block around an address: its start, and what the trace tells of it. 0 if there is none.
uint64_t blockAround(DFHEAP *heap, Told &told) {
    const QXHold hold(heap->Lock);
    const PHALLOC *const record = _DFHEAP_FindAlloc(heap, told.addr);
    if (record == nullptr) {
        return 0;
    }
    told.owner = record->pOwner;
    told.count = record->lRefCount;
    return record->lpAddr;
}

} // namespace

uint64_t DFHEAP_BytesFrom(DFHEAP *heap, uint64_t addr) {
    const QXHold hold(heap->Lock);
    const PHALLOC *const record = _DFHEAP_FindAlloc(heap, addr);
    if (record == nullptr) {
        return heap->qwLength - (addr - heap->lpBase);
    }
    const uint64_t size = record->qwSize - heap->dwGuard;
    return size - std::min(size, addr - record->lpAddr);
}

int32_t DFHEAP_AddRefTrace(DFHEAP *heap, uint64_t addr, uint64_t *owner, const char *msgarea, uint32_t line) {
    const Site site{msgarea, line};
    Told told{.addr = addr};
    if (heap == nullptr || addr == 0) {
        traceRefused("phys_addref_bad_param", told, site, "DFHEAP_AddRef bad parameter");
        return -1;
    }
    switch (addRef(heap, owner, told)) {
    case AddRef::missing:
        traceRefused("phys_addref_missing", told, site, "DFHEAP_AddRef allocation not found");
        return -1;
    case AddRef::corrupt: traceRefused("phys_addref_refcount_corrupt", told, site, "refcount below one"); return -1;
    default: traceTouched("phys_addref", told, site, "DFHEAP_AddRef"); return 0;
    }
}

uint32_t DFHEAP_FindAllocTrace(DFHEAP *heap, const uint64_t *pAddr, const char *msgarea, uint32_t line) {
    const Site site{msgarea, line};
    Told told{.addr = pAddr != nullptr ? *pAddr : 0};
    if (heap == nullptr || told.addr == 0) {
        traceRefused("phys_findalloc_bad_param", told, site, "DFHEAP_FindAlloc bad parameter");
        return 0;
    }
    const uint64_t start = blockAround(heap, told);
    if (start == 0) {
        traceRefused("phys_findalloc_missing", told, site, "DFHEAP_FindAlloc allocation not found");
        return 0;
    }
    traceTouched("phys_findalloc", told, site, "DFHEAP_FindAlloc");
    return static_cast<uint32_t>(told.addr) - static_cast<uint32_t>(start);
}

int32_t DFHEAP_FixAllocTrace(DFHEAP *heap, uint64_t *pAddr, const char *msgarea, uint32_t line) {
    const Site site{msgarea, line};
    Told told{.addr = pAddr != nullptr ? *pAddr : 0};
    if (heap == nullptr || told.addr == 0) {
        traceRefused("phys_fixalloc_bad_param", told, site, "DFHEAP_FixAlloc bad parameter");
        return -1;
    }
    const uint64_t start = blockAround(heap, told);
    if (start == 0) {
        traceRefused("phys_fixalloc_missing", told, site, "DFHEAP_FixAlloc allocation not found");
        return -1;
    }
    *pAddr = told.addr = start;
    traceTouched("phys_fixalloc", told, site, "DFHEAP_FixAlloc");
    return 0;
}

int32_t DFHEAP_SwapRefTrace(DFHEAP *heap, uint64_t addr1, uint64_t owner1, uint64_t addr2, uint64_t owner2,
                            const char *msgarea, uint32_t line) {
    const Site site{msgarea, line};
    const Told told{.owner = owner1, .addr = addr1};
    if (heap == nullptr || addr1 == 0) {
        traceRefused("phys_swapref_bad_param", told, site, "DFHEAP_SwapRef bad parameter");
        return -1;
    }
    const QXHold hold(heap->Lock);
    const Pair found = findBoth(heap, addr1, addr2);
    if (found.first == nullptr || found.second == nullptr) {
        traceRefused("phys_swapref_missing", told, site, "DFHEAP_SwapRef allocation not found");
        return -1;
    }
    std::swap(found.first->lRefCount, found.second->lRefCount);
    found.first->pOwner = owner2; // in this order: in one block owner1 stays
    found.second->pOwner = owner1;
    traceSwapped(found.first, site, "DFHEAP_SwapRef first"); // under Lock, so that both rows show one exchange
    traceSwapped(found.second, site, "DFHEAP_SwapRef second");
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
