/** @file
 *  What QXUtil does when the process forks. Private. */
#ifndef QXUTIL_FORK_H
#define QXUTIL_FORK_H

/** From now on a fork acquires QXUtil's own locks first and releases them on both sides, so that the
 *  child has no lock whose holder stayed in the parent. Later calls do nothing. A library with fork handlers that
 *  acquire locks of the contract registers them after its first qxOSInitializeCriticalSection, which calls this:
 *  the system runs the handlers of later registrations first, and QXUtil's locks are the innermost. */
void qxHookFork();

/** The lock unit's part in a forked child. */
void qxLocksForked();

#endif
