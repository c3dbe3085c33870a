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
 *  replaced. So a read that must never end the process asks qxLookAtForeign first. Who does call the one it
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

/** What a look at a word of memory that nobody vouches for has shown. */
enum class ForeignWord {
    unreadable, // or not mapped at all
    differs,
    looksEqual, // or the system refuses to look: the reader has to see for itself, in a guarded section
};

/** Compares the word at `address`, which may be any multiple of 4, with `expected`. The system reads it for us, so
 *  no fault is raised, whatever signals the thread blocks and whoever handles them.
 *  @note One system call. */
ForeignWord qxLookAtForeign(std::uintptr_t address, std::uint32_t expected);

/** Marks a function that reads memory which nobody vouches for. The sanitizers would report what is its
 *  purpose: to look where released blocks, other threads' blocks and red zones may lie. It reads through
 *  volatile and calls nothing. */
#ifdef __GNUC__
#define QX_READS_FOREIGN_MEMORY __attribute__((noinline, no_sanitize("address", "thread", "undefined")))
#else
#define QX_READS_FOREIGN_MEMORY
#endif

#endif
