/** @file
 *  The reader behind qxOSMemoryStatus, apart so that it can read the files of another machine. Private. */
#ifndef QXUTIL_MEMORY_STATUS_POSIX_H
#define QXUTIL_MEMORY_STATUS_POSIX_H

#include <cstdint>
#include <string>

struct QXMemoryStatus {
    uint64_t totalPhys = 0; // bytes, 0 if unknown
    uint64_t availPhys = 0; // bytes that can be had without swapping, 0 if unknown
};

/** @param root  put in front of `/proc` and `/sys`; empty for this machine */
QXMemoryStatus qxReadMemoryStatus(const std::string &root);

#endif
