// The log on disk or on standard error. A file is opened once, for appending, and stays open: each message is
// one write at the file's end, so that several processes may share it and none is lost if the process dies.
#include "platform.h"
#include "qxutil.h"
#include "static_lock.h"
#include "uninterrupted.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int logFile = -1;        // open file of QXUTIL_LOG, or standard error; -1 until the first message; under qxLogLock
struct stat logIdentity; // of that file, if it isn't standard error

void writeAll(int file, std::string_view text) {
    constexpr int kPatienceMs = 1000; // with a full pipe that doesn't block
    while (!text.empty()) {
        const ssize_t count = write(file, text.data(), text.size());
        pollfd room{file, POLLOUT, 0};
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN ? poll(&room, 1, kPatienceMs) <= 0 : errno != EINTR) {
            return; // a full disk, say: nobody is left to tell
        }
    }
}

int openLog() {
    const char *path = qxEnvironment("QXUTIL_LOG");
    if (path == nullptr) {
        return STDERR_FILENO;
    }
    const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0666);
    if (file >= 0 && fstat(file, &logIdentity) == 0) {
        return file;
    }
    writeAll(STDERR_FILENO, "QXUtil: can't open the log file of QXUTIL_LOG, messages go to standard error\n");
    return STDERR_FILENO;
}

// Lock held. True if the file is still ours: a host that turns itself into a service closes all it doesn't know, and
// the number may be another file's by now.
bool logStillOpen() {
    struct stat now {};
    return logFile == STDERR_FILENO || (logFile >= 0 && fstat(logFile, &now) == 0 &&
                                        now.st_dev == logIdentity.st_dev && now.st_ino == logIdentity.st_ino);
}

} // namespace

void qxLogWrite(const char *text, std::size_t length) noexcept {
    const QXUninterrupted whole;
    const std::scoped_lock hold(qxLogLock);
    if (!logStillOpen()) {
        logFile = openLog();
    }
    writeAll(logFile, {text, length});
}
