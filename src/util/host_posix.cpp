#include "host.h"

#include "write.h"

#pragma weak qxOSHookFork // another QXUtil may have none of them
#pragma weak qxOSOwnLocks
#pragma weak qxOSTryEnterCriticalSection

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::FILE *openStream(const char *path, int flags, unsigned rights) {
    const int file = qxOpenToWrite(path, flags, rights);
    std::FILE *const stream = file >= 0 ? fdopen(file, "wb") : nullptr;
    if (stream == nullptr && file >= 0) {
        close(file);
    }
    return stream;
}

} // namespace

const char *qxHostEnvironment(const char *name) noexcept { return secure_getenv(name); }

std::FILE *qxCreateNamed(const char *path) noexcept { return openStream(path, O_TRUNC, 0666); }

std::FILE *qxCreatePrivate(const char *path) noexcept {
    unlink(path); // what is left of an earlier process of that number; another user's stays, and is refused below
    return openStream(path, O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
}

std::size_t qxHostWrite(std::FILE *file, std::string_view text, bool &stalled) noexcept {
    return qxWriteOut(fileno(file), text, stalled);
}

void qxHostTakeBack(std::FILE *file, std::size_t length) noexcept {
    const off_t end = lseek(fileno(file), -static_cast<off_t>(length), SEEK_CUR);
    while (end >= 0 && ftruncate(fileno(file), end) != 0 && errno == EINTR) {
    }
}

void hostHookUtilFork() noexcept {
    if (qxOSHookFork != nullptr) {
        qxOSHookFork();
    }
}

bool hostOwnLocks() noexcept {
    return qxOSOwnLocks != nullptr && qxOSTryEnterCriticalSection != nullptr &&
           qxOSOwnLocks(qxOSInitializeCriticalSection, qxOSEnterCriticalSection, qxOSLeaveCriticalSection) != 0;
}

bool hostTryLock(QXCRITICALSECTION &lock) noexcept { return qxOSTryEnterCriticalSection(&lock) != 0; }

void qxAtFork(void (*before)(), void (*inParent)(), void (*inChild)()) noexcept {
    pthread_atfork(before, inParent, inChild);
}
