// The log on disk or on standard error. A file is opened once, for appending, and stays open: each message is
// one write at the file's end, so that several processes may share it and none is lost if the process dies. No lock
// that could be waited for in vain: the last messages come when the process has ended its other threads, one of which
// may have stood in here.
#include "platform.h"
#include "qxutil.h"
#include "uninterrupted.h"
#include "write.h"

#include <atomic>
#include <string_view>

#include <windows.h>

namespace {

// The file of QXUTIL_LOG, open from the first message on; INVALID_HANDLE_VALUE: standard error, which the host may
// change at any time. Null: not looked for yet.
std::atomic<HANDLE> logFile = nullptr;

// The library leaves the process, or the process ends.
struct Closer {
    ~Closer() {
        const HANDLE file = logFile.exchange(INVALID_HANDLE_VALUE);
        if (file != nullptr && file != INVALID_HANDLE_VALUE) {
            CloseHandle(file);
        }
    }
};
Closer closer;

// Threads take turns as long as that works: where the system seeks and writes in two steps, as an emulator does, a
// message would overwrite another's.
std::atomic<bool> turnTaken = false;
std::atomic<bool> turnLost = false; // whoever had it has been ended

struct Turn {
    bool mine = false;
    Turn() {
        constexpr int kPatience = 10000; // a write takes some ten of these
        for (int tries = 0; !mine && !turnLost && tries < kPatience; ++tries) {
            mine = !turnTaken.exchange(true);
            if (!mine) {
                SwitchToThread();
            }
        }
        if (!mine) {
            turnLost = true;
        }
    }
    ~Turn() {
        if (mine) {
            turnTaken = false;
        }
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;
};

std::atomic<bool> lossTold = false;

bool writeTo(HANDLE file, std::string_view text) {
    bool stalled = false; // a write waits here
    return qxWriteOut(reinterpret_cast<std::intptr_t>(file), text, stalled) == text.size();
}

void writeToStandardError(std::string_view text) { writeTo(GetStdHandle(STD_ERROR_HANDLE), text); }

HANDLE openLog() {
    const char *const path = qxEnvironment("QXUTIL_LOG");
    HANDLE file = INVALID_HANDLE_VALUE;
    if (path != nullptr) {
        file = CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    HANDLE first = nullptr;
    if (!logFile.compare_exchange_strong(first, file)) { // another thread's first message has come between
        if (file != INVALID_HANDLE_VALUE) {
            CloseHandle(file);
        }
        return first;
    }
    if (path != nullptr && file == INVALID_HANDLE_VALUE) {
        writeToStandardError("QXUtil: can't open the log file of QXUTIL_LOG, messages go to standard error\n");
    }
    return file;
}

} // namespace

void qxLogWrite(const char *text, std::size_t length) noexcept {
    const QXUninterrupted whole;
    HANDLE file = logFile;
    if (file == nullptr) {
        file = openLog();
    }
    const Turn turn;
    if (file == INVALID_HANDLE_VALUE) {
        writeToStandardError({text, length});
    } else if (!writeTo(file, {text, length}) && !lossTold.exchange(true)) {
        writeToStandardError("QXUtil: can't write to the log file of QXUTIL_LOG, messages are lost\n");
    }
}
