// The rules of a heap (see heap.h), walked through. For tests and debug builds; the libraries of other builds have
// none of it.
#include "heap.h"
#include "lanes.h"

#include "util/guard.h"

#include <algorithm>
#include <cassert>
#include <vector>

namespace brenvole {

namespace {

using Records = std::vector<const PHALLOC *>;

// Records of a list; empty with a wrong count if it is torn.
bool collect(d_List *list, Records &records) {
    uint32_t count = 0;
    for (d_ListNode *node = d_ListHead(list); node != nullptr; node = d_ListNext(node), ++count) {
        if (node->lpList != list || count > d_ListCount(list)) {
            return false;
        }
        records.push_back(physRecord(node));
    }
    return count == d_ListCount(list);
}

bool tiles(const DFHEAP *heap, Records all) {
    std::sort(all.begin(), all.end(), [](const PHALLOC *a, const PHALLOC *b) { return a->lpAddr < b->lpAddr; });
    uint64_t done = 0; // bytes covered from lpBase on
    for (const PHALLOC *record : all) {
        if (record->lpAddr - heap->lpBase != done || record->qwSize > heap->qwLength - done) {
            return false;
        }
        done += record->qwSize;
    }
    return done == heap->qwLength;
}

template <class Rule> bool neighbours(const Records &segments, const Rule &rule) {
    for (std::size_t i = 1; i < segments.size(); ++i) {
        if (!rule(segments[i - 1], segments[i])) {
            return false;
        }
    }
    return true;
}

bool mapHolds(const DFHEAP *heap, const Records &all) {
    uint64_t named = 0;
    for (const PHALLOC *record : all) {
        const uint64_t first = physGranules(heap, record->lpAddr - heap->lpBase);
        for (uint64_t i = first; i < first + record->qwSize / heap->qwGranularity; ++i, ++named) {
            if (physMapped(heap, i) != record) {
                return false;
            }
        }
    }
    return named == heap->qwChunkCount;
}

uint64_t largest(const Records &segments) {
    uint64_t size = 0;
    for (const PHALLOC *segment : segments) {
        size = std::max(size, segment->qwSize);
    }
    return size;
}

template <class Rule> bool all(const Records &records, const Rule &rule) {
    return std::all_of(records.begin(), records.end(), rule);
}

uint64_t roundedToFan(uint64_t count) { return (count + kFan - 1) / kFan * kFan; }

bool treeSound(const FreeIndex &index, uint64_t granules) {
    uint64_t width = roundedToFan(granules);
    for (uint32_t level = 1; level < index.dwLevels; ++level) {
        for (uint64_t at = 0; at < width / kFan; ++at) {
            if (index.aplLevel[level][at] != lanesMost(index.aplLevel[level - 1] + at * kFan)) {
                return false;
            }
        }
        width = roundedToFan(width / kFan);
    }
    return static_cast<uint64_t>(std::count_if(index.aplLevel[0], index.aplLevel[0] + granules,
                                               [](int32_t length) { return length != 0; })) == index.dwCount;
}

// The index holds these segments and nothing else, or isn't to be asked.
bool indexSound(const DFHEAP *heap, const Records &segments) {
    const FreeIndex &index = heap->Index;
    const bool few = index.eState == IndexState::few;
    if (!few && index.eState != IndexState::many) {
        return true;
    }
    if (segments.size() != index.dwCount) {
        return false;
    }
    for (std::size_t i = 0; i < segments.size(); ++i) {
        const auto start = static_cast<int32_t>(physGranules(heap, segments[i]->lpAddr - heap->lpBase));
        const auto length = static_cast<int32_t>(physGranules(heap, segments[i]->qwSize));
        if ((few && index.alStart[i] != start) || (few ? index.alLength[i] : index.aplLevel[0][start]) != length) {
            return false;
        }
    }
    return few || treeSound(index, heap->qwChunkCount);
}

} // namespace

bool freeIndexSound(DFHEAP *heap) {
    Records segments;
    return collect(&heap->FreeList, segments) && indexSound(heap, segments);
}

unsigned _DFHEAP_Check(DFHEAP *heap) {
    Records blocks;
    Records segments;
    if (!collect(&heap->AllocList, blocks) || !collect(&heap->FreeList, segments)) {
        return 1;
    }
    Records everything = blocks;
    everything.insert(everything.end(), segments.begin(), segments.end());
    if (!tiles(heap, everything)) {
        return 1;
    }
    if (!all(everything, [heap](const PHALLOC *r) {
            return r->qwOffset - heap->qwPhysOffset == r->lpAddr - heap->lpBase && r->pSelf == r;
        })) {
        return 2;
    }
    if (!all(everything,
             [heap](const PHALLOC *r) { return r->qwSize != 0 && r->qwSize % heap->qwGranularity == 0; })) {
        return 3;
    }
    if (!neighbours(segments, [](const PHALLOC *low, const PHALLOC *high) { return low->lpAddr < high->lpAddr; })) {
        return 4;
    }
    if (!all(blocks, [](const PHALLOC *r) { return r->lRefCount >= 1; })) {
        return 5;
    }
    if (heap->ppChunkMap != nullptr && !mapHolds(heap, everything)) {
        return 6;
    }
    if (heap->bLargestValid != 0 && heap->qwLargestFree != largest(segments)) {
        return 7;
    }
    const bool apart = neighbours(
        segments, [](const PHALLOC *low, const PHALLOC *high) { return high->lpAddr - low->lpAddr > low->qwSize; });
    if (!apart) {
        return 8;
    }
    return indexSound(heap, segments) ? 0 : 9;
}

#ifndef NDEBUG
void physAssertSound(DFHEAP *heap) {
    constexpr uint64_t kQuicklyWalked = 4096; // granules; larger heaps are checked by tests alone
    constexpr unsigned kCounts = 5;           // a count that somebody has spoilt is reported, in every build
    constexpr unsigned kOrder = 4;            // these two cost fragmentation only
    constexpr unsigned kApart = 8;
    const bool wraps = heap->qwLength - 1 > UINT64_MAX - heap->lpBase; // its order by address is no order
    if (heap->qwLength / heap->qwGranularity <= kQuicklyWalked && !wraps) {
        volatile unsigned broken = 0;
        qxGuarded([&] { broken = _DFHEAP_Check(heap); }); // a list that faults here would have done so before
        assert(broken == 0 || broken == kCounts || broken == kOrder || broken == kApart);
    }
}
#endif

} // namespace brenvole
