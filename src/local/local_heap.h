/** @file
 *  The local heap: frame data over QXAlloc, outside every pool. There is no heap object and no table of blocks;
 *  a block's descriptor is found from a bare pointer into its data.
 *
 *      QXAlloc block                     descriptor        data, aligned to 16384
 *      |<- gap, 0 to 16383 ->|<- PHALLOC in 128 bytes ->|<- effective size, at least ->|
 *
 *  One released block, the largest so far, is kept as the cache and serves the next big request. Its descriptor
 *  stays whole, but its count is 0 or below, so that it can't be found. */
#ifndef BRENVOLE_LOCAL_HEAP_H
#define BRENVOLE_LOCAL_HEAP_H

#include "counters.h"
#include "phalloc.h"

#include <brenvole/dframe.h>

namespace brenvole {

/** Makes a block and stores its data pointer in pDF->lpData.
 *  @param size  bytes, not 0; above 0xFFFFA000 it is refused like a failed QXAlloc
 *  @return the data pointer; null if refused, or what pDF->lpData then holds after a caught fault
 *  @note Takes dfmemLock, but not over its QXAlloc. The data is not cleared. */
uint8_t *LHEAP_Alloc(uint32_t size, PDFRAME pDF, const char *msgarea, uint32_t line);

/** Drops one reference; the last one caches the block or gives it to QXFree.
 *  @return references left; 0 if the block ended; -1 for a null or damaged descriptor, which stays as it is
 *  @note Takes dfmemLock. */
int32_t LHEAP_Free(PHALLOC *pHA, const char *msgarea, uint32_t line);

/** The last byte that LHEAP_Find finds, counted from the start of a block's data. */
inline constexpr uint32_t kLocalReach = 278527;

/** Finds the local block that `address` lies in, up to kLocalReach bytes above the start of its data. For an
 *  address in the data of a block that the heap remembers, that is this block; for any other the nearest live
 *  descriptor at or below the address, whatever the block's length, unless it lies inside the data of a block
 *  that the heap remembers.
 *  @param address  any value whatever; memory that isn't there ends the search
 *  @return its descriptor, or null
 *  @note Takes no lock and changes nothing. Makes system calls only for an address outside the blocks that it
 *  remembers. */
PHALLOC *LHEAP_Find(uintptr_t address);

/** The start of a block's data, from its descriptor. */
uint8_t *LHEAP_DataStart(const PHALLOC *descriptor);

/** How far `address` lies above the start of the data; more than qwSize of the descriptor is beyond the block. */
inline uint64_t LHEAP_Offset(const PHALLOC *descriptor, uintptr_t address) {
    return address - reinterpret_cast<uintptr_t>(LHEAP_DataStart(descriptor));
}

/** Gives the cached block to QXFree. Works before any command has run.
 *  @note Takes dfmemLock if it exists. */
void LHEAP_DropCache();

} // namespace brenvole

#endif
