/** @file
 *  The record of a phys heap, its rules, and what the units of this folder share.
 *
 *  Rules, true whenever Lock is free; _DFHEAP_Check walks the heap and names the first that is broken.
 *    H1  The two lists cover lpBase to lpBase + qwLength, each byte once.
 *    H2  Offset and address move together: qwOffset - qwPhysOffset is lpAddr - lpBase in every record.
 *    H3  Every qwSize is a multiple of the granule, and not 0.
 *    H4  FreeList ascends by address (but for a merge that was refused, which can't happen inside one region).
 *    H5  A record on AllocList has at least one reference.
 *    H6  Each entry of the chunk map names the record that covers its granule.
 *    H7  If bLargestValid is set, qwLargestFree is the size of the largest segment.
 *    H8  Neighbours on FreeList don't touch (but for one that its list wouldn't let go).
 *    H9  The index, if it may be asked, holds the segments of FreeList.
 *
 *  Locks: Lock first, then a list's lock, never the other way round, and never both list locks. A worker with a
 *  leading underscore runs with Lock held unless it says otherwise. */
#ifndef BRENVOLE_HEAP_H
#define BRENVOLE_HEAP_H

#include "free_index.h"

#include "local/block_memory.h"
#include "local/fork_locks.h"
#include "local/phalloc.h"

#include <brenvole/dfheap.h>

#include <atomic>

struct DFHEAP {
    uint64_t qwPhysOffset;  // physical offset of the first usable byte
    uint64_t lpBase;        // first usable byte, a multiple of the granule, never 0
    uint64_t qwLength;      // usable bytes, a multiple of the granule, never 0
    uint64_t qwGranularity; // the granule, never 0
    uint64_t qwSmallest;    // requests up to this come from the top
    d_List AllocList;       // blocks, in the order of their allocation
    d_List FreeList;        // free segments, by ascending address
    QXCRITICALSECTION Lock;
    brenvole::PHALLOC **ppChunkMap; // one entry a granule, or null: then lookups walk AllocList
    uint64_t qwChunkCount;          // entries of ppChunkMap; 0 without a map
    uint64_t qwLargestFree;         // size of the largest segment, if valid
    uint32_t bLargestValid;
    // Beyond what a heap is known by:
    uint32_t bRegionOurs;           // the region is memory of this library's own: block_memory.h applies
    uint32_t dwGuard;               // bytes at the end of each block that aren't its user's
    brenvole::PHALLOC **ppGroupMap; // follows ppChunkMap in its array, an entry per kGroup granules; or null
    uint32_t dwShift;               // the granule's power of two, or kNoShift
    brenvole::ForkLock Fork;        // its Lock, as a fork knows it
    brenvole::FreeIndex Index;
};

namespace brenvole {

/** Granules that one entry of the group map stands for: it spares a long block most of its stamps, and a short one
 *  needs no more of the chunk map than two lines of the cache at either end. */
inline constexpr uint64_t kGroup = 32;

inline constexpr uint32_t kNoShift = 64; // a granule that is no power of two

/** How many granules lie in so many bytes of the heap. */
inline uint64_t physGranules(const DFHEAP *heap, uint64_t bytes) {
    return heap->dwShift != kNoShift ? bytes >> heap->dwShift : bytes / heap->qwGranularity; // a division costs 20 ns
}

/** The record that the map has for a granule; the heap has a map. */
inline PHALLOC *physMapped(const DFHEAP *heap, uint64_t chunk) {
    PHALLOC *const whole = heap->ppGroupMap != nullptr ? heap->ppGroupMap[chunk / kGroup] : nullptr;
    return whole != nullptr ? whole : heap->ppChunkMap[chunk];
}

/** True if the index may be asked; else FreeList is walked. */
inline bool freeIndexReady(DFHEAP *heap) {
    const FreeIndex &index = heap->Index;
    return index.eState == IndexState::many || (index.eState == IndexState::few && index.dwCount <= kFewSegments) ||
           freeIndexRemake(heap);
}

/** @name The geometry without Lock
 *  It changes under Lock, in DFHEAP_Resize alone, and is read with and without.
 *  @{ */
inline uint64_t physRead(const uint64_t &word) {
    return std::atomic_ref(const_cast<uint64_t &>(word)).load(std::memory_order_relaxed);
}
inline void physWrite(uint64_t &word, uint64_t value) {
    std::atomic_ref(word).store(value, std::memory_order_relaxed);
}
/** @} */

/** Rounds up to a multiple of `unit`, which is not 0.
 *  @return false, and `value` untouched, if the result would pass 2^64 - 1 */
inline bool physRoundUp(uint64_t &value, uint64_t unit) {
    const uint64_t rest = value % unit;
    const uint64_t missing = rest == 0 ? 0 : unit - rest;
    if (value > UINT64_MAX - missing) {
        return false;
    }
    value += missing;
    return true;
}

/** A node of a heap's list is its record. */
inline PHALLOC *physRecord(d_ListNode *node) { return reinterpret_cast<PHALLOC *>(node); }

/** True if the record's range holds the address; no sum, since a region may end at 2^64. */
inline bool physHolds(const PHALLOC *record, uint64_t addr) {
    return addr != 0 && record->lpAddr != 0 && record->qwSize != 0 && addr >= record->lpAddr &&
           addr - record->lpAddr < record->qwSize;
}

/** A block's memory, which is this library's own. */
inline BlockMemory physMemoryOf(const DFHEAP *heap, const PHALLOC *record, const char *msgarea, uint32_t line) {
    return {record->lpAddr, record->qwSize - heap->dwGuard, heap->dwGuard, record->pOwner, msgarea, line};
}

/** Writes what every record of a phys heap has: a node on no list, the sentinels, the self pointer, the tag. */
void physInitRecord(PHALLOC *record);

/** Takes 1 from phys_allocs, unless it is 0. */
void physUncountAlloc();

/** Bytes from `addr`, which lies in the region, to the end of its block, or of the region if no block holds it. */
uint64_t DFHEAP_BytesFrom(DFHEAP *heap, uint64_t addr);

/** 1 if `addr` lies in the region, else 0; null arguments give 0. Takes no lock. */
int32_t DFHEAP_Contains(const DFHEAP *heap, uint64_t addr);

/** The end of a heap that other threads may still be inside of, because the process is in exit(): reports what
 *  DFHEAP_Destroy reports, and releases nothing. */
void DFHEAP_ReportAtExit(DFHEAP *heap);

/** The first broken rule, or 0. Lock held. Not in libraries without assertions. */
unsigned _DFHEAP_Check(DFHEAP *heap);
/** H9 alone. */
bool freeIndexSound(DFHEAP *heap);

/** In debug builds, checks a heap that is small enough to be walked after each operation. */
#ifdef NDEBUG
inline void physAssertSound(DFHEAP *) {}
#else
void physAssertSound(DFHEAP *heap);
#endif

/** @name Operations on blocks, as dfheap.h tells them, with the call site, which serves the trace alone
 *  @{ */
uint64_t DFHEAP_AllocTrace(DFHEAP *heap, uint64_t *size, uint64_t owner, uint64_t *physOffset, const char *msgarea,
                           uint32_t line);
int32_t DFHEAP_FreeTrace(DFHEAP *heap, uint64_t addr, uint64_t *owner, const char *msgarea, uint32_t line);
int32_t DFHEAP_AddRefTrace(DFHEAP *heap, uint64_t addr, uint64_t *owner, const char *msgarea, uint32_t line);
uint32_t DFHEAP_FindAllocTrace(DFHEAP *heap, const uint64_t *pAddr, const char *msgarea, uint32_t line);
int32_t DFHEAP_FixAllocTrace(DFHEAP *heap, uint64_t *pAddr, const char *msgarea, uint32_t line);
int32_t DFHEAP_SwapRefTrace(DFHEAP *heap, uint64_t addr1, uint64_t owner1, uint64_t addr2, uint64_t owner2,
                            const char *msgarea, uint32_t line);
/** @} */

/** @name Figures; 0 for a null heap
 *  @{ */
uint64_t DFHEAP_TotalFree(DFHEAP *heap);
uint64_t DFHEAP_TotalUsed(DFHEAP *heap);
/** @} */

/** A record on its way into FreeList; kept by its caller, so that a fault on the way can be mended. */
struct Placing {
    DFHEAP *heap;
    PHALLOC *volatile loose = nullptr;   // the record, as long as it is on no list and not part of a segment
    PHALLOC *volatile segment = nullptr; // then: itself on FreeList, or the segment that it has become part of
    PHALLOC *volatile low = nullptr;     // two neighbours that are being joined, the upper one leaving its list
    PHALLOC *volatile high = nullptr;
    PHALLOC *volatile spent = nullptr; // a record whose range is a segment's now, to be stamped and given back
    volatile bool listLocked = false;
    const char *msgarea = nullptr; // for the trace
    uint32_t line = 0;
};

/** Puts the loose record into FreeList at its address, merged with what it touches. Lock held. Called again after a
 *  fault, it goes on where it stopped.
 *  @return 0, or -1 if a merge was refused: then it stands on FreeList all the same */
int32_t _DFHEAP_PlaceFree(Placing &placing);

/** After a fault, or where a list hasn't taken the record: gives the list's lock back, and brings the record to its
 *  place after all. Lock held. */
void physFinishPlacing(Placing &placing);

/** Reads the records on both sides of a node, or at an end of a list. What can't be read faults here, where no list
 *  is locked, and not inside the list operation that follows. In guarded sections only. */
void physTouchAround(d_ListNode *node);
void physTouchHead(d_List *list);
void physTouchTail(d_List *list);

/** True if the record stands on the list. Lists tell so in the node; not all of their operations have a result. */
inline bool physStandsOn(const PHALLOC *record, const d_List *list) { return record->Node.lpList == list; }

/** @name Chunk map and lookup
 *  @{ */
/** 1 if QXBRENVOLE_LEGACY_SEARCH is set, as it was at the first call of the process. Takes no lock. */
int32_t _DFHEAP_UseListSearch();
/** Makes the map fit the geometry and points every entry at `desc`. A refused map is reported; the heap goes on. */
void _DFHEAP_RebuildChunkMap(DFHEAP *heap, PHALLOC *desc);
/** Points the entries of a range at `desc`. */
void _DFHEAP_MarkChunks(DFHEAP *heap, uint64_t addr, uint64_t size, PHALLOC *desc);
/** The record on AllocList whose block holds `addr`, or null. */
PHALLOC *_DFHEAP_FindAlloc(DFHEAP *heap, uint64_t addr);
/** @} */

} // namespace brenvole

#endif
