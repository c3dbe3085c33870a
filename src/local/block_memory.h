/** @file
 *  What happens to the memory of a block when it is handed out and when it is released, beside the heaps'
 *  books: nothing, unless a tool that looks for memory errors watches the process, or QXBRENVOLE_GUARD is on.
 *
 *      start             start + size        start + size + guard
 *      |<- the frame's data ->|<- the guard ------------->|
 *
 *  A memory tool lets the program access the data, and reports an access to the guard, or to a block after its
 *  release. With QXBRENVOLE_GUARD a live block's guard holds a pattern and the call site that made the
 *  block; the pattern is verified at the release, and then all of the block is filled with another one. */
#ifndef BRENVOLE_BLOCK_MEMORY_H
#define BRENVOLE_BLOCK_MEMORY_H

#include <atomic>
#include <cstdint>

namespace brenvole {

struct BlockMemory {
    uint64_t start;
    uint64_t size;  // bytes
    uint64_t guard; // bytes, may be 0
    uint64_t owner; // the frame
    const char *msgarea;
    uint32_t line;
};

/** @name Whether any of it applies, decided at the first call of the process
 *  @{ */
inline constexpr int kBlockWatched = 1; // a tool watches
inline constexpr int kBlockGuards = 2;  // QXBRENVOLE_GUARD is on
inline std::atomic<int> blockMemoryState = -1;
int blockMemoryDecide();

inline int blockMemoryWays() {
    const int ways = blockMemoryState.load(std::memory_order_relaxed);
    return ways >= 0 ? ways : blockMemoryDecide();
}
/** True if the calls below have anything to do. */
inline bool blockMemoryMatters() { return blockMemoryWays() != 0; }
inline bool blockGuardsOn() { return (blockMemoryWays() & kBlockGuards) != 0; }
/** @} */

/** Nobody's yet: a whole pool, say. */
void blockMemoryForbid(const BlockMemory &block);
/** The block is a frame's from now on. */
void blockMemoryHandOut(const BlockMemory &block);
/** It is nobody's; an overwritten guard is reported. */
void blockMemoryRelease(const BlockMemory &block);
/** A block that was kept since its release is about to be handed out again: what has been written to it in between is
 *  reported. */
void blockMemoryReuse(const BlockMemory &block);
/** The block goes back to where it came from. */
void blockMemoryGiveBack(const BlockMemory &block);

} // namespace brenvole

#endif
