/** @file
 *  What QXUtil's common units ask of its platform units; qxutil.h is the rest of that border. Private. */
#ifndef QXUTIL_PLATFORM_H
#define QXUTIL_PLATFORM_H

#include <cstddef>
#include <cstdint>
#include <string>

/** Value of an environment variable, null if unset, empty, or if the process runs with more rights than its
 *  caller, who then must not decide where it reads and writes. Valid until the variable changes. */
const char *qxEnvironment(const char *name) noexcept;

/** Appends `length` bytes to the log, through to the system, as one piece. */
void qxLogWrite(const char *text, std::size_t length) noexcept;

/** Ends the configuration store when the library is unloaded, and nobody is inside any more. */
void qxForgetStore() noexcept;

/** What tells one state of a file from another. Two equal stamps: nothing has changed, if they are settled. */
struct QXFileStamp {
    uint64_t qwDevice = 0;
    uint64_t qwFile = 0;
    uint64_t qwSize = 0;
    int64_t qwTimeNs = 0;   // of its content
    int64_t qwChangeNs = 0; // of its content or of anything about it
    bool bExists = false;   // a regular file; all else counts as missing
    bool bSettled = true;   // false: so young that another change may still get the same times
    bool operator==(const QXFileStamp &other) const {
        return qwDevice == other.qwDevice && qwFile == other.qwFile && qwSize == other.qwSize &&
               qwTimeNs == other.qwTimeNs && qwChangeNs == other.qwChangeNs && bExists == other.bExists;
    }
};

QXFileStamp qxFileStamp(const char *path) noexcept;

/** Reads a regular file whole, at most `limit` bytes.
 *  @return false if it can't be read or is larger; `content` is then empty */
bool qxReadFile(const char *path, std::size_t limit, std::string &content);

#endif
