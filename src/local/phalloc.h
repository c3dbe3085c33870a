/** @file
 *  PHALLOC, the descriptor of one block in either heap. */
#ifndef BRENVOLE_PHALLOC_H
#define BRENVOLE_PHALLOC_H

#include "util/qxutil.h"

#include <cstddef>
#include <cstdint>

namespace brenvole {

/** In a local block it lies inside the block, in front of the data; in a phys heap it is a QXAlloc block of its
 *  own. The two heaps fill the guard words with different values, so that no phys record is ever taken for a
 *  local one. lRefCount changes through the interlocked operations only, once it is set. */
struct PHALLOC {
    d_ListNode Node;   // first, so that a node of a heap's list is its descriptor; unused in a local block
    uint64_t qwOffset; // physical offset; 0 in a local block
    uint32_t dwGuard1;
    uint64_t lpAddr; // first byte of the block; in a local block what QXAlloc returned, not the data
    uint32_t dwGuard2;
    uint64_t qwSize; // bytes; in a local block the effective size
    uint32_t dwGuard3;
    int32_t lRefCount; // at least 1 while the block is live
    uint32_t dwGuard4;
    uint64_t pOwner; // who holds the block, a DFRAME as a rule
    uint32_t dwGuard5;
    PHALLOC *pSelf; // the record's own address
    uint32_t dwGuard6;
    uint8_t cTag; // nothing reads it
};

/** Bytes in front of a local block's data that hold its descriptor. */
inline constexpr std::size_t kDescriptorArea = 128;

static_assert(offsetof(PHALLOC, Node) == 0);
static_assert(sizeof(PHALLOC) <= kDescriptorArea);
static_assert(offsetof(PHALLOC, qwOffset) == 24 && offsetof(PHALLOC, dwGuard1) == 32);
static_assert(offsetof(PHALLOC, lpAddr) == 40 && offsetof(PHALLOC, dwGuard2) == 48);
static_assert(offsetof(PHALLOC, qwSize) == 56 && offsetof(PHALLOC, dwGuard3) == 64);
static_assert(offsetof(PHALLOC, lRefCount) == 68 && offsetof(PHALLOC, dwGuard4) == 72);
static_assert(offsetof(PHALLOC, pOwner) == 80 && offsetof(PHALLOC, dwGuard5) == 88);
static_assert(offsetof(PHALLOC, pSelf) == 96 && offsetof(PHALLOC, dwGuard6) == 104);
static_assert(offsetof(PHALLOC, cTag) == 108);

} // namespace brenvole

#endif
