/** @file
 *  Writing to a file that the library's user has chosen, and whose failures its host must not notice. Compiled into
 *  both libraries. Private. */
#ifndef QXUTIL_WRITE_H
#define QXUTIL_WRITE_H

#include <cstddef>
#include <cstdint>
#include <string_view>

/** Writes `text` to an open file, whatever interrupts it. No signal that this raises reaches the process. A file that
 *  doesn't block gets a second each time it has no room; after a second in vain it gets none until it takes bytes
 *  again, so that a reader that has stopped delays its writer once.
 *  @param file     descriptor, or handle of the system
 *  @param stalled  the caller's record of that second, one for each file, false at the start
 *  @return bytes that went out; the rest, if any, can't be written
 *  @note The caller holds a QXUninterrupted. Not for two threads at once with one record. */
std::size_t qxWriteOut(std::intptr_t file, std::string_view text, bool &stalled) noexcept;

/** Opens a file for writing, made if it isn't there; POSIX systems only. A pipe isn't waited for, but for a second
 * once in the process: its reader may just be starting.
 *  @param flags  beside those for writing, making, not blocking and not handing on
 *  @return descriptor; -1 if it can't be opened */
int qxOpenToWrite(const char *path, int flags, unsigned rights) noexcept;

#endif
