/** @file
 *  Tools that look for memory errors in the host: the address sanitizer, which a host brings along by
 *  being built with it, and Valgrind. They see what the C library's allocator hands out and takes back; of what
 *  this library keeps and hands out itself they have to be informed. Costs a test where neither is present, and
 *  never touches the memory. Private. */
#ifndef QXUTIL_TOOLS_H
#define QXUTIL_TOOLS_H

#include <cstddef>
#include <cstdint>

/** True if a tool watches the process. */
bool qxWatched() noexcept;
bool qxUnderValgrind() noexcept;

/** From now on an access to the range is an error of the host's. Memory that isn't the process's is left alone. */
void qxForbidAccess(uint64_t address, uint64_t bytes) noexcept;
/** From now on it is none; the content is undefined. */
void qxAllowAccess(uint64_t address, uint64_t bytes) noexcept;

#endif
