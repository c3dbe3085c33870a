// What the configuration store needs of files.
#include "platform.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QXFileStamp stampOf(const struct stat &status) {
    constexpr int64_t kNsPerSecond = 1'000'000'000;
    return {static_cast<uint64_t>(status.st_dev), static_cast<uint64_t>(status.st_ino),
            static_cast<uint64_t>(status.st_size),
            static_cast<int64_t>(status.st_mtim.tv_sec) * kNsPerSecond + status.st_mtim.tv_nsec, true};
}

bool readAll(int file, std::string &content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t count = read(file, content.data() + done, content.size() - done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    const bool whole = done == content.size(); // shorter: cut while we read; the next stamp will differ
    content.resize(done);
    return whole;
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
    bool read =
        fstat(file, &status) == 0 && S_ISREG(status.st_mode) && static_cast<uint64_t>(status.st_size) <= limit;
    if (read) {
        content.resize(static_cast<std::size_t>(status.st_size));
        readAll(file, content);
    }
    close(file);
    return read;
}
