// From an address to its block.
//
// A walk of AllocList costs time with every live block. The chunk map has one entry a granule, which names the
// record that covers it, on whichever list that stands: a lookup is one division and one read. An entry counts only
// after the record that it names has been tested against the address; what the map can't prove, the list decides.
// So a map that couldn't be had, or an entry that is out of date, costs time and nothing else.
//
// A picture covers a thousand granules and more, and its block is stamped when it comes and when it goes. So granules
// stand in groups. A group that one record covers has that record in the group map, and its own entries say nothing
// (a record that they name may have gone); once a part of it is stamped, the entries are filled in and the group's is
// null. A lookup reads one entry more for it.
#include "heap.h"
#include "lanes.h"

#include "util/says_on.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <utility>

namespace brenvole {

namespace {

constexpr uint64_t kEntryBytes = sizeof(void *);
// QXAlloc takes 32 bits of bytes, so a larger heap has no map.
constexpr uint64_t kMostChunks = UINT32_MAX / kEntryBytes;

// The list-search mode: -1 not read yet, 0 off, 1 on. All threads that read it first come to the same value.
std::atomic<int32_t> listSearch = -1;

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
    const int32_t mode = qxSaysOn(std::getenv("QXBRENVOLE_LEGACY_SEARCH")) ? 1 : 0;
    int32_t unread = -1;
    if (listSearch.compare_exchange_strong(unread, mode) && mode == 1) { // one of several first readers tells it
        ErrOut("Brenvole:  QXBRENVOLE_LEGACY_SEARCH set, using list search");
    }
    return mode;
}

namespace {

// Granules from which on a heap has groups: in a smaller one no block is long enough to gain by them.
constexpr uint64_t kGroupedFrom = 4096;

// Makes an array of `wanted` entries; behind it the group map, if both fit into what QXAlloc takes.
void makeMap(DFHEAP *heap, uint64_t wanted) {
    if (wanted > kMostChunks) {
        return;
    }
    const uint64_t groups = (wanted + kGroup - 1) / kGroup;
    const bool grouped = wanted >= kGroupedFrom && wanted + groups <= kMostChunks;
    const uint64_t bytes = (wanted + (grouped ? groups : 0)) * kEntryBytes;
    heap->ppChunkMap = static_cast<PHALLOC **>(QXAlloc(static_cast<uint32_t>(bytes)));
    if (heap->ppChunkMap != nullptr) {
        heap->qwChunkCount = wanted;
        heap->ppGroupMap = grouped ? heap->ppChunkMap + wanted : nullptr;
    }
}

// Stamps a part of one group.
void stampPart(DFHEAP *heap, uint64_t first, uint64_t end, PHALLOC *desc) {
    if (first == end) {
        return;
    }
    if (heap->ppGroupMap != nullptr) {
        PHALLOC *&whole = heap->ppGroupMap[first / kGroup];
        if (whole != nullptr) { // from here on its granules differ
            const uint64_t begin = first / kGroup * kGroup;
            lanesFill(heap->ppChunkMap + begin, std::min(kGroup, heap->qwChunkCount - begin), whole);
            whole = nullptr;
        }
    }
    lanesFill(heap->ppChunkMap + first, end - first, desc);
}

// Stamps the granules from `first` to `end`: the groups that they fill as a whole, and a part of one at either side.
void stamp(DFHEAP *heap, uint64_t first, uint64_t end, PHALLOC *desc) {
    const uint64_t group = (first + kGroup - 1) / kGroup;
    const bool toTheEnd = end == heap->qwChunkCount; // the last group may be shorter
    const uint64_t groupEnd = toTheEnd ? (end + kGroup - 1) / kGroup : end / kGroup;
    if (heap->ppGroupMap == nullptr || group >= groupEnd) { // none as a whole
        const uint64_t middle = std::min(group * kGroup, end);
        stampPart(heap, first, middle, desc);
        stampPart(heap, middle, end, desc);
        return;
    }
    stampPart(heap, first, group * kGroup, desc);
    lanesFill(heap->ppGroupMap + group, groupEnd - group, desc);
    stampPart(heap, std::min(groupEnd * kGroup, end), end, desc);
}

} // namespace

void _DFHEAP_RebuildChunkMap(DFHEAP *heap, PHALLOC *desc) {
    const uint64_t chunks = heap->qwLength / heap->qwGranularity;
    const uint64_t wanted = _DFHEAP_UseListSearch() == 1 ? 0 : chunks;
    if (heap->ppChunkMap == nullptr || heap->qwChunkCount != wanted) {
        if (heap->ppChunkMap != nullptr) {
            heap->qwChunkCount = 0;
            heap->ppGroupMap = nullptr;
            QXFree(std::exchange(heap->ppChunkMap, nullptr));
        }
        if (wanted != 0) {
            makeMap(heap, wanted);
            if (heap->ppChunkMap == nullptr) { // costs speed only; the next resize tries again
                ErrOut("Brenvole:  Unable to allocate chunk map (%I64u chunks), falling back to list search", wanted);
            }
        }
    }
    _DFHEAP_MarkChunks(heap, heap->lpBase, heap->qwLength, desc);
}

void _DFHEAP_MarkChunks(DFHEAP *heap, uint64_t addr, uint64_t size, PHALLOC *desc) {
    if (heap->ppChunkMap == nullptr || addr == 0 || size == 0 || addr < heap->lpBase) {
        return;
    }
    const uint64_t first = physGranules(heap, addr - heap->lpBase);
    if (first >= heap->qwChunkCount) {
        return;
    }
    const uint64_t count = physGranules(heap, size - 1) + 1; // rounded up, without a sum that could wrap
    stamp(heap, first, first + std::min(count, heap->qwChunkCount - first), desc);
}

PHALLOC *_DFHEAP_FindAlloc(DFHEAP *heap, uint64_t addr) {
    if (heap->ppChunkMap == nullptr) {
        return walkForBlock(heap, addr);
    }
    if (DFHEAP_Contains(heap, addr) == 0) {
        return nullptr;
    }
    const uint64_t chunk = physGranules(heap, addr - heap->lpBase);
    PHALLOC *const entry = chunk < heap->qwChunkCount ? physMapped(heap, chunk) : nullptr;
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
