/** @file
 *  What the trace asks of the system beyond qxutil.h: compiled into the memory library. Private. */
#ifndef QXUTIL_HOST_H
#define QXUTIL_HOST_H

#include <cstdio>

/** Value of an environment variable, null if unset, or if the process runs with more rights than its caller, who then
 *  must not decide what it writes, and where. Valid until the variable changes. */
const char *qxHostEnvironment(const char *name) noexcept;

/** Opens a file of the process's own for writing, under a name that somebody else could have guessed: nothing that
 *  stands there is followed or kept, and nobody else can read what is written.
 *  @return null if it can't be made */
std::FILE *qxCreatePrivate(const char *path) noexcept;

#endif
