/** @file
 *  The global lock. It guards the reference count of every frame, the frame counters, the local heap's counters
 *  and cache, and the reference counts and owners of local blocks. It is never held together with a phys heap's
 *  lock, and over QXAlloc only by the trace, for its own records. */
#ifndef BRENVOLE_DFMEM_LOCK_H
#define BRENVOLE_DFMEM_LOCK_H

#include "util/qxutil.h"

#include <atomic>

namespace brenvole {

extern QXCRITICALSECTION dfmemLock;

/** Creates the lock once, whichever thread comes first. It is never deleted. */
void dfmemLockCreate();

/** True once the lock exists. Only what may run before any command has to ask. */
bool dfmemLockReady();

/** Adds to a counter under the lock. The counters are atomics for their readers without the lock; the one writer
 *  at a time needs no locked instruction. */
template <class Word> void dfmemCount(std::atomic<Word> &counter, Word by) {
    counter.store(static_cast<Word>(counter.load(std::memory_order_relaxed) + by), std::memory_order_relaxed);
}
/** The opposite. */
template <class Word> void dfmemUncount(std::atomic<Word> &counter, Word by) {
    dfmemCount(counter, static_cast<Word>(Word{0} - by));
}

} // namespace brenvole

#endif
