// From an address to its block.
//
// A walk of AllocList costs time with every live block. The chunk map has one entry a granule, which names the
// record that covers it, on whichever list that stands: a lookup is one division and one read. An entry counts only
// after the record that it names has been tested against the address; what the map can't prove, the list decides.
// So a map that couldn't be had, or an entry that is out of date, costs time and nothing else.
#include "heap.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <strings.h>

namespace brenvole {

namespace {

constexpr uint64_t kEntryBytes = sizeof(void *);
// QXAlloc takes 32 bits of bytes, so a larger heap has no map.
constexpr uint64_t kMostChunks = UINT32_MAX / kEntryBytes;

// The list-search mode: -1 not read yet, 0 off, 1 on. All threads that read it first come to the same value.
std::atomic<int32_t> listSearch = -1;

bool saysOn(const char *value) {
    if (value == nullptr || *value == 0) {
        return false;
    }
    return std::strchr("1yY", *value) != nullptr || strcasecmp(value, "true") == 0 || strcasecmp(value, "on") == 0 ||
           strcasecmp(value, "yes") == 0;
}

PHALLOC *walkForBlock(DFHEAP *heap, uint64_t addr) {
    d_ListNode *node = d_ListHead(&heap->AllocList);
    while (node != nullptr && !physHolds(physRecord(node), addr)) {
        node = d_ListNext(node);
    }
    return physRecord(node);
}

} // namespace

int32_t _DFHEAP_UseListSearch() {
    const int32_t known = listSearch.load(std::memory_order_relaxed);
    if (known >= 0) {
        return known;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): read once; the host sets it before
    const int32_t mode = saysOn(std::getenv("QXBRENVOLE_LEGACY_SEARCH")) ? 1 : 0;
    int32_t unread = -1;
    if (listSearch.compare_exchange_strong(unread, mode) && mode == 1) { // one of several first readers tells it
        ErrOut("Brenvole:  QXBRENVOLE_LEGACY_SEARCH set, using list search");
    }
    return mode;
}

void _DFHEAP_RebuildChunkMap(DFHEAP *heap, PHALLOC *desc) {
    const uint64_t chunks = heap->qwLength / heap->qwGranularity;
    const uint64_t wanted = _DFHEAP_UseListSearch() == 1 ? 0 : chunks;
    if (heap->ppChunkMap == nullptr || heap->qwChunkCount != wanted) {
        if (heap->ppChunkMap != nullptr) {
            heap->qwChunkCount = 0;
            QXFree(std::exchange(heap->ppChunkMap, nullptr));
        }
        if (wanted != 0) {
            const auto bytes = static_cast<uint32_t>(wanted * kEntryBytes);
            heap->ppChunkMap = wanted <= kMostChunks ? static_cast<PHALLOC **>(QXAlloc(bytes)) : nullptr;
            if (heap->ppChunkMap != nullptr) {
                heap->qwChunkCount = wanted;
            } else { // costs speed only; the next resize tries again
                ErrOut("Brenvole:  Unable to allocate chunk map (%I64u chunks), falling back to list search", wanted);
            }
        }
    }
    std::fill_n(heap->ppChunkMap, heap->qwChunkCount, desc);
}

void _DFHEAP_MarkChunks(DFHEAP *heap, uint64_t addr, uint64_t size, PHALLOC *desc) {
    if (heap->ppChunkMap == nullptr || addr == 0 || size == 0 || addr < heap->lpBase) {
        return;
    }
    const uint64_t first = (addr - heap->lpBase) / heap->qwGranularity;
    if (first >= heap->qwChunkCount) {
        return;
    }
    const uint64_t count = (size - 1) / heap->qwGranularity + 1; // rounded up, without a sum that could wrap
    std::fill_n(heap->ppChunkMap + first, std::min(count, heap->qwChunkCount - first), desc);
}

PHALLOC *_DFHEAP_FindAlloc(DFHEAP *heap, uint64_t addr) {
    if (heap->ppChunkMap == nullptr) {
        return walkForBlock(heap, addr);
    }
    if (DFHEAP_Contains(heap, addr) == 0) {
        return nullptr;
    }
    const uint64_t chunk = (addr - heap->lpBase) / heap->qwGranularity;
    PHALLOC *const entry = chunk < heap->qwChunkCount ? heap->ppChunkMap[chunk] : nullptr;
    if (entry != nullptr && physHolds(entry, addr)) {
        if (entry->Node.lpList == &heap->AllocList) {
            return entry;
        }
        if (entry->Node.lpList == &heap->FreeList) {
            return nullptr;
        }
    }
    return walkForBlock(heap, addr);
}

} // namespace brenvole
