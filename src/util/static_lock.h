/** @file
 *  Locks that exist before any code runs and after all of it, apart from the contract's. The owner does not enter
 *  again. In a forked child whoever held one at the fork may leave it.
 *
 *  Not std::mutex: when a process ends on Windows, the system ends its other threads wherever they are, and
 *  what still runs then (DllMain, which reports leaks) may find a lock taken for ever. The system's critical
 *  sections know of that moment; the locks of a compiler's thread library don't. Private. */
#ifndef QXUTIL_STATIC_LOCK_H
#define QXUTIL_STATIC_LOCK_H

#include "qxutil.h"

struct QXStaticLock {
    /** How the system's section begins while it is free: no debug record, a count of -1; behind it all is 0.
     * Elsewhere these words aren't looked at. */
    uintptr_t awStart[2] = {UINTPTR_MAX, UINT32_MAX};
    QXCRITICALSECTION Rest = {}; ///< what is left of it; elsewhere the lock

    void lock(); ///< these names are what std::scoped_lock calls
    void unlock();
};

/** @name QXUtil's own locks
 *  All innermost: nothing else is acquired under one, and no message goes out.
 *  @{ */
extern QXStaticLock qxStoreLock;  ///< the configuration store
extern QXStaticLock qxLogLock;    ///< the log's file
extern QXStaticLock qxSinkLock;   ///< the host's sink
extern QXStaticLock qxRegionLock; ///< the table of regions
/** @} */

#endif
