// What the configuration store needs of files.
#include "exit.h"
#include "platform.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;
// The system's file times move in steps of up to 10 ms.
constexpr int64_t kSettledAfterNs = 50'000'000;

int64_t nanoseconds(const timespec &time) { return int64_t{time.tv_sec} * kNsPerSecond + time.tv_nsec; }

QXFileStamp stampOf(const struct stat &status) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t changed = nanoseconds(status.st_ctim);
    return {static_cast<uint64_t>(status.st_dev),
            static_cast<uint64_t>(status.st_ino),
            static_cast<uint64_t>(status.st_size),
            nanoseconds(status.st_mtim),
            changed,
            true,
            nanoseconds(now) - changed > kSettledAfterNs};
}

// Fills `content`, and cuts it to what there is: a file may have become shorter. False if the system fails.
bool readAll(int file, std::string &content) {
    std::size_t done = 0;
    ssize_t count = 1;
    while (done < content.size() && count != 0) {
        count = read(file, content.data() + done, content.size() - done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count < 0 && errno != EINTR) {
            return false;
        }
    }
    content.resize(done);
    return true;
}

// At the end of the process other threads may still be inside.
__attribute__((destructor(101))) void forgetStore() {
    if (!qxInExit()) {
        qxForgetStore();
    }
}

} // namespace

QXFileStamp qxFileStamp(const char *path) noexcept {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISREG(status.st_mode) ? stampOf(status) : QXFileStamp{};
}

bool qxReadFile(const char *path, std::size_t limit, std::string &content) {
    content.clear();
    // O_NONBLOCK: the path may have become a pipe since it was looked at, which must not stop the process.
    const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0) {
        return false;
    }
    struct stat status {};
    const bool fits =
        fstat(file, &status) == 0 && S_ISREG(status.st_mode) && static_cast<uint64_t>(status.st_size) <= limit;
    if (fits) {
        content.resize(static_cast<std::size_t>(status.st_size));
    }
    const bool whole = fits && readAll(file, content);
    close(file);
    if (!whole) {
        content.clear();
    }
    return whole;
}
