/** @file
 *  What a fork does with the library's locks, and with the trace.
 *
 *  A child has one thread, the one that forked. A lock that another thread of its parent held at that moment
 *  would never be released, and what it guards might be half changed. So the forking thread acquires all locks
 *  first; then nobody is at work under them. The parent releases them. The child makes them anew: a lock of
 *  another QXUtil may know its owner by the number of a thread, and the child's thread has a number of its own.
 *
 *  The forking thread never waits for one lock while it holds another: a host may hold a heap's lock and run
 *  commands, or run them from a message sink, in any order. If a lock is taken, it releases what it has and
 *  tries again, for a second at most: should a lock never be free, as with two threads that hold a heap's lock
 *  each and fork both, the fork goes on without it. Locks of another QXUtil can't be tried; these are acquired from
 * the outermost to the innermost. */
#ifndef BRENVOLE_FORK_LOCKS_H
#define BRENVOLE_FORK_LOCKS_H

#include "util/qxutil.h"

#include <mutex>

namespace brenvole {

/** A heap's lock, as a fork knows it; lies in the heap. */
struct ForkLock {
    QXCRITICALSECTION *lock;
    bool held; // by a fork that is under way
    ForkLock *next;
    ForkLock *prev;
};

/** From here to forkLockLeave a fork acquires the lock as well. Waits for a fork that is under way. */
void forkLockEnter(ForkLock &entry, QXCRITICALSECTION &lock);
void forkLockLeave(ForkLock &entry);

/** One thread at a time makes a pool for all that need it; the outermost lock. Here for forks only. */
extern std::recursive_mutex poolLock;

/** Registers what a fork does. Later calls do nothing. Called before there is anything to be acquired. */
void forkHook();

} // namespace brenvole

#endif
