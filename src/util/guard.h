/** @file
 *  Guarded sections: a piece of plain code runs, and whoever runs it learns whether anything was caught, an
 *  exception or a memory fault. Private to the system.
 *
 *  What holds for the code inside: it owns nothing with a destructor (a fault leaves it at once), what it has
 *  locked is noted in a volatile and given back by whoever runs the section, and a variable that is read
 *  afterwards is volatile or changed only around calls into other units. Sections nest; a fault ends the
 *  innermost. Entering costs a few nanoseconds and no system call.
 *
 *  The first section of the process takes over the system's fault handling for good: a fault of a thread that
 *  is in no section goes on to whoever handled it before. A handler that the host installs later gets every
 *  fault first, as the host wants it; those of guarded sections among them reach us only if it calls the one it
 *  replaced. So a read that must never end the process asks qxReadForeign first. Who does call the one it
 *  replaced has to be gone before the library is unloaded: ours goes with it. */
#ifndef QXUTIL_GUARD_H
#define QXUTIL_GUARD_H

#include <cstddef>
#include <cstdint>

/** Runs body(context).
 *  @return true if it ran to its end, false if something was caught */
bool qxGuardRun(void (*body)(void *), void *context);

/** The same for a lambda: `if (!qxGuarded([&] { ... })) { ... }`. */
template <class Body> bool qxGuarded(Body &&body) {
    return qxGuardRun([](void *context) { (*static_cast<Body *>(context))(); }, &body);
}

/** Reads `count` pieces of `size` bytes each, at `from[0]`, `from[1]`, ..., that may lie anywhere, mapped or
 *  not, into `to`, one behind the other, and stops at the first that can't be read. No fault is raised.
 *  @return pieces read; -1 if the system refuses the service, then nothing is known
 *  @note One system call. */
int qxReadForeign(const std::uintptr_t *from, int count, std::size_t size, void *to);

/** Marks a function that reads memory which nobody vouches for. The sanitizers would report what is its
 *  purpose: to look where released blocks, other threads' blocks and red zones may lie. It reads through
 *  volatile and calls nothing. */
#define QX_READS_FOREIGN_MEMORY __attribute__((noinline, no_sanitize("address", "thread", "undefined")))

#endif
