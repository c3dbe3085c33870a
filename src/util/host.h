/** @file
 *  What the trace asks of the system beyond qxutil.h: compiled into the memory library. Private. */
#ifndef QXUTIL_HOST_H
#define QXUTIL_HOST_H

#include "qxutil.h"

#include <cstddef>
#include <cstdio>
#include <string_view>

/** Value of an environment variable, null if unset, or if the process runs with more rights than its caller, who then
 *  must not decide what it writes, and where. Valid until the variable changes. */
const char *qxHostEnvironment(const char *name) noexcept;

/** Opens a file that the user has named for writing; what stands there is replaced. A pipe needs a reader:
 *  nobody waits for one. Programs that this one starts don't inherit it, nor the other one.
 *  @return null if it can't be opened */
std::FILE *qxCreateNamed(const char *path) noexcept;

/** Opens a file of the process's own for writing, under a name that somebody else could have guessed: nothing that
 *  stands there is followed or kept, and nobody else can read what is written.
 *  @return null if it can't be made */
std::FILE *qxCreatePrivate(const char *path) noexcept;

/** Writes `text` to a file of these, past its stream, as qxWriteOut does. */
std::size_t qxHostWrite(std::FILE *file, std::string_view text, bool &stalled) noexcept;

/** Takes the last `length` bytes back that were written to it, if that is possible: a pipe keeps what it has. */
void qxHostTakeBack(std::FILE *file, std::size_t length) noexcept;

/** @name What our own QXUtil can do beyond the contract
 *  Another one may lack it, or have some of its lock functions replaced.
 *  @{ */
/** Has QXUtil register its own fork handlers, if it has any, before ours. */
void hostHookUtilFork() noexcept;
/** True if the locks are QXUtil's own; only then may one be tried. */
bool hostOwnLocks() noexcept;
/** Enters the lock if it is free, or the thread's already. */
bool hostTryLock(QXCRITICALSECTION &lock) noexcept;
/** @} */

/** From now on: `before` runs ahead of each fork of this process, then one of the others on either side. Where
 *  processes don't fork, none runs. */
void qxAtFork(void (*before)(), void (*inParent)(), void (*inChild)()) noexcept;

#endif
