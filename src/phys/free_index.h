/** @file
 *  A second way into FreeList, for the two searches whose walk grows with the number of free segments: the first
 *  segment, from either end, that has room for a request, and the last segment below an address.
 *
 *  FreeList is the truth, and what the index answers is what a walk would find. The index knows where each segment
 *  starts and how long it is, both in granules, and no more; the record comes from the chunk map. So a heap without a
 *  map has no index, and walks, as it does where the index's own memory can't be had.
 *
 *  Up to kFewSegments it is two arrays, sorted by start, which are scanned sixteen entries at a time. Beyond,
 *  it is a tree: a leaf for each granule holds the length of the segment that starts there, or 0, and each node
 *  above holds the largest of sixteen below it. From the root down to the first or last node that is large
 *  enough: that is first fit from the bottom or the top, in as many steps as the tree has levels.
 *
 *  An operation that changes FreeList changes the index with it. Where a fault or a list's refusal stops it
 *  half-way, the index is dropped (stale), and made anew from the list by the next operation that asks. So it
 *  is where a segment isn't found in it that should be: memory errors of the host's may have reached it.
 *  Whatever changes the list on the way back from a fault drops it again: it may have been made anew in
 *  between.
 *
 *  All of it runs with the heap's Lock held. */
#ifndef BRENVOLE_FREE_INDEX_H
#define BRENVOLE_FREE_INDEX_H

#include <cstdint>

struct DFHEAP;

namespace brenvole {

struct PHALLOC;

/** Segments that two arrays hold: as many as can be scanned in the time of a way through the tree. */
inline constexpr uint32_t kFewSegments = 64;
/** A granule's number has at most 29 bits, since the chunk map is no larger; 4 of them a level. */
inline constexpr uint32_t kMostLevels = 8;

inline constexpr uint32_t kFan = 16; // children of a node, which are looked at in one go

enum class IndexState : uint32_t {
    off,   // walk
    stale, // walk, unless it can be made anew
    few,   // the arrays; the tree, if there is one, holds nothing but zeros or isn't clean
    many,  // the tree
};

/** Rules: alStart ascends up to dwCount and is INT32_MAX behind it, where alLength is 0. Each node of the tree is the
 *  maximum of its sixteen children; levels are filled up with zeros to a multiple of sixteen. */
struct FreeIndex {
    IndexState eState;
    uint32_t dwCount; // segments
    int32_t alStart[kFewSegments];
    int32_t alLength[kFewSegments];
    void *lpTree;        // what QXAlloc gave, or null
    uint32_t dwLevels;   // of the tree; the last one has at most sixteen nodes
    uint32_t bTreeClean; // it holds zeros only
    int32_t *aplLevel[kMostLevels];
};

/** A fresh index; the memory may hold anything. */
void freeIndexInit(DFHEAP *heap);
/** Gives back what the index has; the heap walks from here on until its FreeList is short. */
void freeIndexClose(DFHEAP *heap);
/** The geometry has changed. */
void freeIndexReset(DFHEAP *heap);

/** A change of FreeList was stopped half-way. */
void freeIndexSpoil(DFHEAP *heap);

/** Brings the index up to date where that is called for. @return false: it can't be asked */
bool freeIndexRemake(DFHEAP *heap);

/** The first segment of at least `size` bytes, from the bottom or from the top; null if there is none. */
PHALLOC *freeIndexFit(DFHEAP *heap, uint64_t size, bool fromBottom);
/** The last segment that starts below `addr`, or null. */
PHALLOC *freeIndexBefore(DFHEAP *heap, uint64_t addr);

/** The record has come to FreeList, or is about to leave it. */
void freeIndexAdd(DFHEAP *heap, const PHALLOC *segment);
void freeIndexRemove(DFHEAP *heap, const PHALLOC *segment);
/** The segment that started at `from` starts where its record says now, and is as long; its neighbours are the same.
 */
void freeIndexChange(DFHEAP *heap, uint64_t from, const PHALLOC *segment);

} // namespace brenvole

#endif
