#include "free_index.h"

#include "heap.h"
#include "lanes.h"

#include "util/guard.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace brenvole {

namespace {

constexpr uint32_t kFanBits = 4;
// Below this many segments the tree gives way to the arrays; far enough from their end that a heap that takes and
// releases at the border doesn't go to and fro.
constexpr uint32_t kFewAgain = kFewSegments / 4;
constexpr uint64_t kTreeAlignment = 64; // a node's children are one cache line

int32_t granulesOf(const DFHEAP *heap, uint64_t bytes) { return static_cast<int32_t>(physGranules(heap, bytes)); }
int32_t startOf(const DFHEAP *heap, const PHALLOC *segment) {
    return granulesOf(heap, segment->lpAddr - heap->lpBase);
}

uint32_t lowestBit(uint32_t mask) { return static_cast<uint32_t>(std::countr_zero(mask)); }
uint32_t highestBit(uint32_t mask) { return static_cast<uint32_t>(std::bit_width(mask)) - 1; }

// ---- the arrays -----------------------------------------------------------------------------------------------

void fewClear(FreeIndex &index) {
    index.dwCount = 0;
    std::fill_n(index.alStart, kFewSegments, INT32_MAX);
    std::fill_n(index.alLength, kFewSegments, 0);
}

// How many entries have a word below `least`, up to the first that hasn't.
uint32_t fewRank(const int32_t *words, uint32_t count, int32_t least) {
    for (uint32_t i = 0; i < count; i += kFan) {
        const uint32_t mask = lanesAtLeast(words + i, least);
        if (mask != 0) {
            return i + lowestBit(mask);
        }
    }
    return count;
}

// The start of the first segment, from either end, that is long enough; below 0 if there is none.
int32_t fewFit(const FreeIndex &index, int32_t length, bool fromBottom) {
    if (fromBottom) {
        const uint32_t at = fewRank(index.alLength, index.dwCount, length);
        return at < index.dwCount ? index.alStart[at] : -1;
    }
    for (uint32_t i = (index.dwCount + kFan - 1) / kFan * kFan; i != 0; i -= kFan) {
        const uint32_t mask = lanesAtLeast(index.alLength + i - kFan, length);
        if (mask != 0) {
            return index.alStart[i - kFan + highestBit(mask)];
        }
    }
    return -1;
}

void fewInsert(FreeIndex &index, int32_t start, int32_t length) {
    const uint32_t at = fewRank(index.alStart, index.dwCount, start);
    const std::size_t behind = (index.dwCount - at) * sizeof *index.alStart;
    std::memmove(index.alStart + at + 1, index.alStart + at, behind);
    std::memmove(index.alLength + at + 1, index.alLength + at, behind);
    index.alStart[at] = start;
    index.alLength[at] = length;
    ++index.dwCount;
}

// `at` is below dwCount.
void fewRemove(FreeIndex &index, uint32_t at) {
    const std::size_t behind = (--index.dwCount - at) * sizeof *index.alStart;
    std::memmove(index.alStart + at, index.alStart + at + 1, behind);
    std::memmove(index.alLength + at, index.alLength + at + 1, behind);
    index.alStart[index.dwCount] = INT32_MAX;
    index.alLength[index.dwCount] = 0;
}

// The entry of the segment that starts there; dwCount if it has none.
uint32_t fewFind(const FreeIndex &index, int32_t start) {
    const uint32_t at = fewRank(index.alStart, index.dwCount, start);
    return at < index.dwCount && index.alStart[at] == start ? at : index.dwCount;
}

// ---- the tree -------------------------------------------------------------------------------------------------

int32_t treeLength(const FreeIndex &index, int32_t start) { return index.aplLevel[0][start]; }

// Sets a leaf, and what changes by it above.
void treeSet(FreeIndex &index, int32_t start, int32_t length) {
    auto at = static_cast<uint32_t>(start);
    int32_t was = std::exchange(index.aplLevel[0][at], length);
    for (uint32_t level = 1; level < index.dwLevels; ++level) {
        const uint32_t child = at;
        at >>= kFanBits;
        int32_t &node = index.aplLevel[level][at];
        if (length < node) {
            if (was != node) { // another child was the largest, and still is
                return;
            }
            length = lanesMost(index.aplLevel[level - 1] + (child & ~(kFan - 1)));
        }
        was = std::exchange(node, length);
        if (was == length) {
            return;
        }
    }
}

// From a node of `level` that is at least `least` down to the first or last leaf below it that is.
int32_t treeDescend(const FreeIndex &index, uint32_t level, uint32_t at, int32_t least, bool first) {
    while (level != 0) {
        --level;
        const uint32_t mask = lanesAtLeast(index.aplLevel[level] + std::size_t{at} * kFan, least);
        at = at * kFan + (first ? lowestBit(mask) : highestBit(mask));
    }
    return static_cast<int32_t>(at);
}

int32_t treeFit(const FreeIndex &index, int32_t length, bool fromBottom) {
    const uint32_t root = index.dwLevels - 1;
    const uint32_t mask = lanesAtLeast(index.aplLevel[root], length);
    if (mask == 0) {
        return -1;
    }
    return treeDescend(index, root, fromBottom ? lowestBit(mask) : highestBit(mask), length, fromBottom);
}

// The last segment that starts before a granule; below 0 if there is none.
int32_t treeBefore(const FreeIndex &index, int32_t granule) {
    auto at = static_cast<uint32_t>(granule);
    for (uint32_t level = 0; level < index.dwLevels; ++level, at >>= kFanBits) {
        const uint32_t column = at & (kFan - 1);
        if (column != 0) {
            const uint32_t mask = lanesAtLeast(index.aplLevel[level] + at - column, 1) & ((1u << column) - 1);
            if (mask != 0) {
                return treeDescend(index, level, at - column + highestBit(mask), 1, false);
            }
        }
    }
    return -1;
}

uint64_t roundedUp(uint64_t count) { return (count + kFan - 1) / kFan * kFan; }

// Gets the tree's memory, if it hasn't any, and fills it with zeros.
bool treeReady(DFHEAP *heap) {
    FreeIndex &index = heap->Index;
    uint64_t nodes = 0;
    uint64_t widths[kMostLevels];
    index.dwLevels = 0;
    for (uint64_t width = heap->qwChunkCount; index.dwLevels == 0 || width > 1; width /= kFan) {
        width = roundedUp(width);
        widths[index.dwLevels++] = width;
        nodes += width;
    }
    const uint64_t bytes = nodes * sizeof(int32_t);
    if (index.lpTree == nullptr && bytes <= UINT32_MAX - kTreeAlignment) {
        void *volatile got = nullptr;
        qxGuarded([&] { got = QXAlloc(static_cast<uint32_t>(bytes + kTreeAlignment)); }); // nothing is half done here
        index.lpTree = got;
        index.bTreeClean = 0;
    }
    if (index.lpTree == nullptr) {
        return false;
    }
    const auto place = reinterpret_cast<uintptr_t>(index.lpTree);
    auto *at = reinterpret_cast<int32_t *>((place + kTreeAlignment - 1) / kTreeAlignment * kTreeAlignment);
    if (index.bTreeClean == 0) {
        std::memset(at, 0, bytes);
    }
    index.bTreeClean = 0; // until it is emptied leaf by leaf
    for (uint32_t level = 0; level < index.dwLevels; at += widths[level++]) {
        index.aplLevel[level] = at;
    }
    return true;
}

// From the tree back to the arrays. Each leaf is cleared on the way, so that the tree is clean again.
void treeToFew(FreeIndex &index) {
    fewClear(index);
    index.eState = IndexState::stale; // if it holds more than it says
    for (int32_t start = treeFit(index, 1, false); start >= 0; start = treeFit(index, 1, false)) {
        if (index.dwCount == kFewSegments) {
            return;
        }
        fewInsert(index, start, treeLength(index, start));
        treeSet(index, start, 0);
    }
    index.bTreeClean = 1;
    index.eState = IndexState::few;
}

// ---- both -----------------------------------------------------------------------------------------------------

PHALLOC *recordAt(const DFHEAP *heap, int32_t start) {
    return start >= 0 ? physMapped(heap, static_cast<uint64_t>(start)) : nullptr;
}

bool holds(const FreeIndex &index) {
    return index.eState == IndexState::many || (index.eState == IndexState::few && index.dwCount <= kFewSegments);
}

// Fills an empty index from FreeList. False if that isn't in order, which costs the heap its index and no more.
bool fill(DFHEAP *heap, bool few) {
    FreeIndex &index = heap->Index;
    uint64_t end = heap->lpBase; // of the segment in front
    uint32_t count = 0;
    for (d_ListNode *node = d_ListHead(&heap->FreeList); node != nullptr; node = d_ListNext(node), ++count) {
        const PHALLOC *const segment = physRecord(node);
        const uint64_t room = heap->qwLength - (end - heap->lpBase);
        if (segment->lpAddr < end || segment->lpAddr - end >= room || segment->qwSize == 0 ||
            segment->qwSize > room - (segment->lpAddr - end) || (few && count == kFewSegments)) {
            return false;
        }
        end = segment->lpAddr + segment->qwSize;
        if (few) {
            fewInsert(index, startOf(heap, segment), granulesOf(heap, segment->qwSize));
        } else {
            treeSet(index, startOf(heap, segment), granulesOf(heap, segment->qwSize));
        }
    }
    index.dwCount = count;
    return true;
}

} // namespace

void freeIndexInit(DFHEAP *heap) {
    heap->Index.lpTree = nullptr;
    heap->Index.bTreeClean = 0;
    heap->Index.eState = IndexState::stale;
}

void freeIndexReset(DFHEAP *heap) {
    void *const tree = heap->Index.lpTree; // has the size of the region that was
    freeIndexInit(heap);
    if (tree != nullptr) {
        qxGuarded([tree] { QXFree(tree); });
    }
}

void freeIndexClose(DFHEAP *heap) {
    if (heap->Index.lpTree != nullptr) {
        QXFree(std::exchange(heap->Index.lpTree, nullptr));
    }
    heap->Index.eState = IndexState::off;
}

bool freeIndexRemake(DFHEAP *heap) {
    FreeIndex &index = heap->Index;
    const bool few = d_ListCount(&heap->FreeList) <= kFewSegments;
    const bool wraps = heap->qwLength - 1 > UINT64_MAX - heap->lpBase; // its order by address is no order
    const bool refused = index.eState == IndexState::off && !few;
    if (heap->ppChunkMap == nullptr || wraps || refused) {
        return false;
    }
    index.eState = IndexState::off;
    if (few) {
        fewClear(index);
    } else if (!treeReady(heap)) {
        return false;
    }
    if (!fill(heap, few)) {
        return false;
    }
    index.eState = few ? IndexState::few : IndexState::many;
    return true;
}

void freeIndexSpoil(DFHEAP *heap) { heap->Index.eState = IndexState::stale; }

PHALLOC *freeIndexFit(DFHEAP *heap, uint64_t size, bool fromBottom) {
    if (size > heap->qwLength) {
        return nullptr;
    }
    const FreeIndex &index = heap->Index;
    const int32_t length = granulesOf(heap, size);
    return recordAt(heap, index.eState == IndexState::few ? fewFit(index, length, fromBottom)
                                                          : treeFit(index, length, fromBottom));
}

PHALLOC *freeIndexBefore(DFHEAP *heap, uint64_t addr) {
    const FreeIndex &index = heap->Index;
    const int32_t granule = granulesOf(heap, addr - heap->lpBase);
    if (index.eState == IndexState::many) {
        return recordAt(heap, treeBefore(index, granule));
    }
    const uint32_t rank = fewRank(index.alStart, index.dwCount, granule);
    return rank != 0 ? recordAt(heap, index.alStart[rank - 1]) : nullptr;
}

void freeIndexAdd(DFHEAP *heap, const PHALLOC *segment) {
    FreeIndex &index = heap->Index;
    if (index.eState == IndexState::few && index.dwCount >= kFewSegments) {
        index.eState = IndexState::stale; // who asks next makes it a tree
        return;
    }
    if (index.eState == IndexState::few) {
        fewInsert(index, startOf(heap, segment), granulesOf(heap, segment->qwSize));
    } else if (index.eState == IndexState::many) {
        treeSet(index, startOf(heap, segment), granulesOf(heap, segment->qwSize));
        ++index.dwCount;
    }
}

namespace {

// False if the index isn't asked, or has no segment that starts at the granule: then it is out of date, for whatever
// reason, and isn't asked any more.
bool knows(DFHEAP *heap, int32_t start) {
    const FreeIndex &index = heap->Index;
    if (!holds(index)) {
        if (index.eState >= IndexState::few) {
            freeIndexSpoil(heap);
        }
        return false;
    }
    const bool found =
        index.eState == IndexState::few
            ? fewFind(index, start) != index.dwCount
            : start >= 0 && static_cast<uint64_t>(start) < heap->qwChunkCount && treeLength(index, start) != 0;
    if (!found) {
        freeIndexSpoil(heap);
    }
    return found;
}

} // namespace

void freeIndexRemove(DFHEAP *heap, const PHALLOC *segment) {
    FreeIndex &index = heap->Index;
    const int32_t start = startOf(heap, segment);
    if (!knows(heap, start)) {
        return;
    }
    if (index.eState == IndexState::few) {
        fewRemove(index, fewFind(index, start));
    } else {
        treeSet(index, start, 0);
        if (--index.dwCount < kFewAgain) {
            treeToFew(index);
        }
    }
}

void freeIndexChange(DFHEAP *heap, uint64_t from, const PHALLOC *segment) {
    FreeIndex &index = heap->Index;
    const int32_t old = granulesOf(heap, from - heap->lpBase);
    const int32_t start = startOf(heap, segment);
    const int32_t length = granulesOf(heap, segment->qwSize);
    if (!knows(heap, old)) {
        return;
    }
    if (index.eState == IndexState::few) {
        const uint32_t at = fewFind(index, old);
        index.alStart[at] = start;
        index.alLength[at] = length;
        return;
    }
    if (start != old) {
        treeSet(index, old, 0);
    }
    treeSet(index, start, length);
}

} // namespace brenvole
