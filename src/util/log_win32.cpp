// The log on disk or on standard error. A file is opened once, for appending, and stays open: each message is
// one write at the file's end, so that several processes may share it and none is lost if the process dies.
#include "platform.h"
#include "qxutil.h"
#include "uninterrupted.h"

#include <mutex>
#include <string_view>

#include <windows.h>

namespace {

HANDLE logFile = nullptr; // null until the first message; under logLock
bool ownFile = false;     // else standard error, which the host may change
std::mutex logLock;

void writeAll(HANDLE file, std::string_view text) {
    while (!text.empty()) {
        DWORD count = 0;
        if (WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &count, nullptr) == 0 || count == 0) {
            return; // a full disk, or no standard error: nobody is left to tell
        }
        text.remove_prefix(count);
    }
}

void openLog() {
    logFile = GetStdHandle(STD_ERROR_HANDLE);
    const char *const path = qxEnvironment("QXUTIL_LOG");
    if (path == nullptr) {
        return;
    }
    const HANDLE file = CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        writeAll(logFile, "QXUtil: can't open the log file of QXUTIL_LOG, messages go to standard error\n");
        return;
    }
    logFile = file;
    ownFile = true;
}

} // namespace

void qxLogWrite(const char *text, std::size_t length) noexcept {
    const QXUninterrupted whole;
    const std::scoped_lock hold(logLock);
    if (logFile == nullptr) {
        openLog();
    } else if (!ownFile) {
        logFile = GetStdHandle(STD_ERROR_HANDLE);
    }
    writeAll(logFile, {text, length});
}
