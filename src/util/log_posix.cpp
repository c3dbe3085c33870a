// The log on disk or on standard error. A file is opened once, for appending, and stays open: each message is
// one write at the file's end, so that several processes may share it and none is lost if the process dies.
#include "exit.h"
#include "platform.h"
#include "qxutil.h"
#include "static_lock.h"
#include "uninterrupted.h"
#include "write.h"

#include <cerrno>
#include <mutex>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int logFile = -1;        // open file of QXUTIL_LOG, or standard error; -1 until the first message; under qxLogLock
struct stat logIdentity; // of that file, if it isn't standard error

// Under qxLogLock, too.
bool logStalled = false;
bool errorStalled = false; // standard error
bool lossTold = false;

// Lock held.
bool writeTo(int file, std::string_view text) {
    return qxWriteOut(file, text, file == STDERR_FILENO ? errorStalled : logStalled) == text.size();
}

// Lock held.
int openLog() {
    const char *path = qxEnvironment("QXUTIL_LOG");
    if (path == nullptr) {
        return STDERR_FILENO;
    }
    logStalled = false;
    const int file = qxOpenToWrite(path, O_APPEND, 0666);
    if (file >= 0 && fstat(file, &logIdentity) == 0) {
        return file;
    }
    writeTo(STDERR_FILENO, "QXUtil: can't open the log file of QXUTIL_LOG, messages go to standard error\n");
    return STDERR_FILENO;
}

// Lock held. True if the file is still ours: a host that turns itself into a service closes all it doesn't know, and
// the number may be another file's by now.
bool logStillOpen() {
    struct stat now {};
    return logFile == STDERR_FILENO || (logFile >= 0 && fstat(logFile, &now) == 0 &&
                                        now.st_dev == logIdentity.st_dev && now.st_ino == logIdentity.st_ino);
}

// When the library is unloaded; at the end of the process other threads may still be inside.
__attribute__((destructor(101))) void closeLog() {
    if (!qxInExit() && logFile > STDERR_FILENO && logStillOpen()) {
        close(logFile);
    }
}

} // namespace

void qxLogWrite(const char *text, std::size_t length) noexcept {
    const QXUninterrupted whole;
    qxHookExit();
    const std::scoped_lock hold(qxLogLock);
    if (!logStillOpen()) {
        logFile = openLog();
    }
    if (!writeTo(logFile, {text, length}) && logFile != STDERR_FILENO && !std::exchange(lossTold, true)) {
        writeTo(STDERR_FILENO, "QXUtil: can't write to the log file of QXUTIL_LOG, messages are lost\n");
    }
}
