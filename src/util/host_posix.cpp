#include "host.h"

#include <cstdlib>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

const char *qxHostEnvironment(const char *name) noexcept { return secure_getenv(name); }

std::FILE *qxCreateNamed(const char *path) noexcept { return std::fopen(path, "wbe"); }

std::FILE *qxCreatePrivate(const char *path) noexcept {
    unlink(path); // what is left of an earlier process of that number; another user's stays, and is refused below
    const int file = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file < 0) {
        return nullptr;
    }
    std::FILE *const stream = fdopen(file, "wb");
    if (stream == nullptr) {
        close(file);
    }
    return stream;
}

void qxAtFork(void (*before)(), void (*inParent)(), void (*inChild)()) noexcept {
    pthread_atfork(before, inParent, inChild);
}
