/** @file
 *  The layout of a local block, shared by the units of the local heap. Private to this folder. */
#ifndef BRENVOLE_LOCAL_BLOCK_H
#define BRENVOLE_LOCAL_BLOCK_H

#include "phalloc.h"
#include "util/guard.h"

namespace brenvole {

/** Alignment of the data, bytes. A descriptor lies right below a multiple of it, which is why a pointer can be
 *  rounded down to find one. */
inline constexpr uint64_t kDataAlignment = 16384;

/** A block's data is its request rounded up to a multiple of this, bytes. */
inline constexpr uint32_t kDataUnit = 8192;

// What the guard words of a live or cached local block hold.
inline constexpr uint32_t kLocalGuard1 = 0xBAADF00D;
inline constexpr uint32_t kLocalGuard2 = 0xE550E550;
inline constexpr uint32_t kLocalGuard3 = 0xF000000F;
inline constexpr uint32_t kLocalGuard4 = 0xA5A5A5A5;
inline constexpr uint32_t kLocalGuard5 = 0x5A5A5A5A;
inline constexpr uint32_t kLocalGuard6 = 0xFAD0BABE;

/** True if all six guard words hold their local values. The record may lie anywhere. */
QX_READS_FOREIGN_MEMORY bool localGuardsHold(const volatile PHALLOC *record);

/** Notes where a live block has its data, and forgets it before the block goes to QXFree. The caller of
 *  localRemember holds dfmemLock. A note decides what LHEAP_Find returns for an address in the block's data,
 *  and saves it system calls. The notes of very many blocks push each other out; such a block is searched for. */
void localRemember(const PHALLOC *descriptor);
void localForget(const PHALLOC *descriptor);

} // namespace brenvole

#endif
