/** @file
 *  The phys heap: carves one contiguous region, which its caller owns, into blocks.
 *
 *  No byte of the region is ever read or written: all bookkeeping lies outside, so the region may be memory that only
 *  hardware or another process can reach. Each block has two coordinates, its address and its physical offset, and
 *  both move together. The caller owns the region before, during and after; the heap owns its records.
 *
 *  Threads: each function takes the heap's lock unless it says otherwise, so all of them may run at once on one
 *  heap, but for DFHEAP_Destroy. A thread that holds the lock by DFHEAP_Lock may call every function of the
 *  family for this heap.
 *
 *  Forks: a forked child has a copy of each heap and may use it. A fork waits until it has the locks of all heaps.
 *
 *  Sizes, lengths and offsets are in bytes. An address is a plain number; the heap never follows it. Blocks count
 *  references: the one that DFHEAP_Alloc makes, and one for each DFHEAP_AddRef.
 *
 *  Results are 0 and -1, addresses and figures, not the status codes of dframe.h. */
#ifndef BRENVOLE_DFHEAP_H
#define BRENVOLE_DFHEAP_H

#include <stdint.h>

#ifndef BRENVOLE_API /* the library's own build marks its exports through this */
#define BRENVOLE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** A heap; its inside is the library's. */
typedef struct DFHEAP DFHEAP;

/** Makes a heap over a region. The usable part begins at `base`, rounded up to the granule, and ends at or below
 *  `base + length`; `physOffset` is rounded up on its own account. The region may end at 2^64.
 *  @param physOffset   physical offset of the first byte, may be 0
 *  @param base         address of the region, not 0; never followed
 *  @param length       not 0, and at least one granule after the rounding
 *  @param granularity  the granule, not 0; needn't be a power of two. Every address and size is a multiple of it.
 *  @param smallest     requests up to this size, after rounding, come from the top of the region, larger ones from
 *                      the bottom; may be 0
 *  @return the heap, or null if there is no memory for its records or the geometry is refused. A chunk map that
 *          can't be had is reported and costs only speed. */
BRENVOLE_API DFHEAP *DFHEAP_Create(uint64_t physOffset, uintptr_t base, uint64_t length, uint32_t granularity,
                                   uint32_t smallest);

/** Lays an empty heap over another region; the arguments are those of DFHEAP_Create.
 *  @return 0; -1 for a null heap, a heap with blocks or with more than one free segment, or a geometry that is
 *          refused: then nothing has changed */
BRENVOLE_API int32_t DFHEAP_Resize(DFHEAP *heap, uint64_t physOffset, uintptr_t base, uint64_t length,
                                   uint32_t granularity, uint32_t smallest);

/** Ends a heap. Live blocks are reported as leaks; the region stays as it is.
 *  @param heap  null does nothing
 *  @note Takes no lock: no other thread may be in the family for this heap. */
BRENVOLE_API void DFHEAP_Destroy(DFHEAP *heap);

/** Counts blocks and free segments.
 *  @param allocCount, freeCount  out, each may be null
 *  @return 0, or -1 for a null heap
 *  @note Takes no lock. */
BRENVOLE_API int32_t DFHEAP_State(DFHEAP *heap, uint32_t *allocCount, uint32_t *freeCount);

/** Enters the heap's lock (`lock` not 0) or leaves it (0). The owner may enter again.
 *  @return 0, or -1 for a null heap */
BRENVOLE_API int32_t DFHEAP_Lock(DFHEAP *heap, int32_t lock);

/** Takes a block. Its content is whatever the region holds.
 *  @param size        in: bytes wanted, not 0; out: rounded up to the granule, also if no block can be had; left
 *                     alone if the rounding would pass 2^64 - 1. Not null.
 *  @param owner       any value, handed back by DFHEAP_AddRef and DFHEAP_Free
 *  @param physOffset  out, may be null: physical offset of the block; written on success only
 *  @note If the heap is resized to another granule while the request waits for the lock, the new granule counts.
 *  @return the block's address, or 0: null heap, zero size (reported), nothing large enough, no memory for a
 *          record (reported), or a fault that was caught on the way: then nothing has been taken */
BRENVOLE_API uintptr_t DFHEAP_Alloc(DFHEAP *heap, uint64_t *size, uint64_t owner, uint64_t *physOffset);

/** Drops one reference on the block that holds `addr`; the last one releases the block.
 *  @param addr   any address inside the block, not only its first byte
 *  @param owner  out, may be null: owner of the block that was released, else 0; not written for a null heap or addr
 *  @return references left; 0 after a release, if no block holds addr (owner tells which), or after a fault that
 *          was caught; -1 for a null heap, a null addr or a corrupt count (both reported), and if a merge would
 *          pass 2^64, which can't happen inside one region: then the block is released all the same */
BRENVOLE_API int32_t DFHEAP_Free(DFHEAP *heap, uintptr_t addr, uint64_t *owner);

/** Adds one reference to the block that holds `addr`.
 *  @param owner  out, may be null: the block's owner; 0 on failure; not written for a null heap or addr
 *  @return 0; -1 for a null heap or addr, an address in no block, or a corrupt count (reported) */
BRENVOLE_API int32_t DFHEAP_AddRef(DFHEAP *heap, uintptr_t addr, uint64_t *owner);

/** Tells how far an address lies inside its block.
 *  @param heap   may be null
 *  @param pAddr  in: the address; may be null or hold 0
 *  @return low 32 bits of the distance; 0 for the block's first byte, and if no block holds the address */
BRENVOLE_API uint32_t DFHEAP_FindAlloc(DFHEAP *heap, const uintptr_t *pAddr);

/** Puts an address back to the first byte of its block.
 *  @param pAddr  in and out: the address; may be null or hold 0
 *  @return 0; -1 for a null argument or an address in no block, then it is left alone */
BRENVOLE_API int32_t DFHEAP_FixAlloc(DFHEAP *heap, uintptr_t *pAddr);

/** Exchanges the reference counts of two blocks and crosses their owners: `addr1` lies in the block of `owner1`,
 *  which is then the block of `owner2`, and the other way round. Two addresses in one block leave its count alone
 *  and `owner1` as its owner.
 *  @return 0; -1 for a null heap, or an address in no block: then nothing has changed */
BRENVOLE_API int32_t DFHEAP_SwapRef(DFHEAP *heap, uintptr_t addr1, uint64_t owner1, uintptr_t addr2, uint64_t owner2);

/** @return size of the largest free segment; 0 if there is none, and for a null heap */
BRENVOLE_API uint64_t DFHEAP_LargestAvail(DFHEAP *heap);

/** Writes both lists to the log, at most once in 1000 ms for the whole process: for each block and segment its
 *  offset and size in granules, its count, and of a block whose owner is a live frame the low half of the frame's
 *  third link word.
 *  @param heap  null does nothing
 *  @note Holds the lock while it logs. */
BRENVOLE_API void _DFHEAP_DumpList(DFHEAP *heap);

#ifdef __cplusplus
}
#endif

#endif
