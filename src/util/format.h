/** @file
 *  The one formatter, for messages and for the columns of files. Independent of platform and locale. */
#ifndef QXUTIL_FORMAT_H
#define QXUTIL_FORMAT_H

#include <cstdarg>
#include <cstddef>

/** Formats as qxutil.h tells under "Messages". Writes at most `capacity` bytes, the terminator included, and
 *  always terminates a buffer of at least one byte.
 *  @param buffer  may be null if `capacity` is 0
 *  @return length of the whole text without its terminator; `capacity` or more if it was cut */
std::size_t qxFormatV(char *buffer, std::size_t capacity, const char *format, std::va_list arguments);
std::size_t qxFormat(char *buffer, std::size_t capacity, const char *format, ...);

#endif
