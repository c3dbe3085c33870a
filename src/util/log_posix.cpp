// The log on disk or on standard error. A file is opened once, for appending, and stays open: each message is
// one write at the file's end, so that several processes may share it and none is lost if the process dies.
#include "platform.h"
#include "qxutil.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string_view>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

int logFile = -1; // open file of QXUTIL_LOG, or standard error; -1 until the first message; under logLock
std::mutex logLock;

// Message writing must not become a point where a thread can be cancelled: the caller may hold locks.
class NoCancel {
  public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~NoCancel() { pthread_setcancelstate(before_, nullptr); }
    NoCancel(const NoCancel &) = delete;
    NoCancel &operator=(const NoCancel &) = delete;

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

void writeAll(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(file, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            return; // a full disk or a closed pipe: nobody is left to tell
        }
    }
}

int openLog() {
    const char *path = qxEnvironment("QXUTIL_LOG");
    if (path == nullptr) {
        return STDERR_FILENO;
    }
    const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0666);
    if (file >= 0) {
        return file;
    }
    writeAll(STDERR_FILENO, "QXUtil: can't open the log file of QXUTIL_LOG, messages go to standard error\n");
    return STDERR_FILENO;
}

} // namespace

void qxLogWrite(const char *text, std::size_t length) noexcept {
    const int error = errno; // a message must not change what its caller sees
    {
        const NoCancel whole;
        const std::scoped_lock hold(logLock);
        if (logFile < 0) {
            logFile = openLog();
        }
        writeAll(logFile, {text, length});
    }
    errno = error;
}
