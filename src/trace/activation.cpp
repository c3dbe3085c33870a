// Whether the trace runs, where its file lies, and its end.
#include "trace.h"

#include "local/fork_locks.h"
#include "util/allocating.h"
#include "util/format.h"
#include "util/hold.h"
#include "util/host.h"
#include "util/once.h"
#include "util/says_on.h"
#include "util/uninterrupted.h"
#include "util/unload.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace brenvole {

namespace {

constexpr uint32_t kPathCapacity = 520;
constexpr std::size_t kFileBuffer = 0x100000; // rows stay in it until a flush
constexpr int32_t kScope = -1;                // of configuration values, as QXUtil wants it

bool atExitDone = false;
std::atomic<bool> atExitCame = false; // first of all that end the trace, so that its name stands in the file
constinit QXOnce lockOnce = 0;

// Rows wait here if there is no memory for more of them.
constexpr std::size_t kSmallBuffer = 4096;
char smallBuffer[kSmallBuffer];

// What of the rows has gone out; under traceLock.
struct Sending {
    bool stalled = false;  // nobody reads the file
    bool rowLost = false;  // the start of a row: what follows up to the next row is useless
    std::size_t begun = 0; // bytes of the last row
};
Sending sending;
bool lossSeen = false;     // under traceLock
bool parentTraces = false; // this is a forked child, which hasn't said yet that it isn't traced; under traceLock
std::atomic<bool> lossToTell = false;

// Lock held, as for its end.
void beginBuffer() {
    auto *const large = static_cast<char *>(std::malloc(kFileBuffer));
    char *const begin = large != nullptr ? large : smallBuffer;
    traceBuffer = {begin, begin, begin + (large != nullptr ? kFileBuffer : kSmallBuffer)};
    sending = {};
}

void endBuffer() {
    if (traceBuffer.begin != smallBuffer) {
        std::free(traceBuffer.begin);
    }
    traceBuffer = {};
}

bool environmentSaysOn(const char *name) { return qxSaysOn(qxHostEnvironment(name)); }

bool configurationSaysOn(const char *section, const char *key) {
    uint32_t value = 0;
    return qxCFGValueDword(kScope, section, key, &value, 0) == 0 && value != 0;
}

bool anySourceSaysOn() {
    return environmentSaysOn("QXBRENVOLE_TRACE") || environmentSaysOn("BRENVOLE_DFRAME_TRACE") ||
           configurationSaysOn("Brenvole\\DFrameTrace", "Enable") || configurationSaysOn("Brenvole", "DFrameTrace") ||
           configurationSaysOn("qxOSCfg\\Brenvole", "DFrameTrace");
}

void append(char *path, uint32_t capacity, const char *text) {
    const std::size_t length = std::strlen(path);
    qxFormat(path + length, capacity - length, "%s", text);
}

bool configuredPath(char *path, uint32_t capacity, const char *section, const char *key) {
    uint32_t size = capacity - 1;
    return qxCFGValueString(kScope, section, key, path, &size, 0) == 0 && *path != 0;
}

// True if the user named the file; else its name is our own.
bool TraceBuildPath(char *path, uint32_t capacity) {
    const char *const named = qxHostEnvironment("QXBRENVOLE_TRACE_FILE");
    if (path == nullptr || capacity == 0) {
        return false;
    }
    *path = 0;
    if (named != nullptr && *named != 0) {
        append(path, capacity, named);
        return true;
    }
    if (configuredPath(path, capacity, "Brenvole\\DFrameTrace", "File") ||
        configuredPath(path, capacity, "Brenvole", "DFrameTraceFile")) {
        return true;
    }
    *path = 0;
    qxOSGetConfigDir(path, 1);
    if (*path == 0) {
        qxOSGetTempDir(path, capacity);
    }
    const std::size_t length = std::strlen(path);
    if (length != 0 && path[length - 1] != '\\' && path[length - 1] != '/') {
        append(path, capacity, "\\"); // directories of this system end in a slash, so that none is added
    }
    char name[128] = {};
    qxFormat(name, sizeof name, "brenvole_dframe_trace_%lu_%lu.csv", qxOSGetProcessId(),
             static_cast<uint32_t>(qxOSGetTimeMs()));
    append(path, capacity, name);
    return false;
}

// The host's own handlers and static objects may still release frames, and the pool tells of its leaks: where the
// library is unloaded behind them, the file is closed then. What there is goes out now, should nobody come that far.
void closeAtExit() {
    if (!qxUnloadsBehindExit()) {
        TraceClose("atexit");
        return;
    }
    atExitCame = true;
    const QXUninterrupted whole;
    const QXHold hold(traceLock);
    traceFlush();
}

// What TraceOpen works on. The path is found before traceLock is taken, and the message goes out behind it: a message
// sink may take other locks, and run commands.
struct Opening {
    char tracePath[kPathCapacity] = "";
    bool named = false; // by the user
    const char *message = nullptr;
};

// Lock held.
int32_t TraceOpen(Opening &opening) {
    if (traceFile.load() != nullptr) { // 1
        return 1;
    }
    if (traceClosed != 0) { // 2, and 3 before the lock
        if (parentTraces) {
            parentTraces = false;
            opening.message = "Brenvole DFrame trace: a forked child isn't traced";
        }
        return 0;
    }
    const QXAllocating mark; // a fault in the C library's allocator is the host's
    std::FILE *const file =
        opening.named ? qxCreateNamed(opening.tracePath) : qxCreatePrivate(opening.tracePath); // 4
    if (file == nullptr) {
        opening.message = "Brenvole DFrame trace enabled but unable to open '%s'";
        return 0;
    }
    std::setvbuf(file, nullptr, _IONBF, 0); // 5: ours is the one buffer, since each piece put into the stream's takes
    beginBuffer();                          // a call and a lock, which cost more than its bytes
    traceFile = file;
    TraceWriteHeader();
    TraceWriteSession("meta", "trace_open", opening.tracePath);
    traceFlush();                                          // 6
    opening.message = "Brenvole DFrame trace enabled: %s"; // 7
    if (!atExitDone) {                                     // 8
        atExitDone = std::atexit(closeAtExit) == 0;
        forkHook();
    }
    return 1;
}

} // namespace

std::atomic<int32_t> traceClosed = 0;
std::atomic<std::FILE *> traceFile = nullptr;
QXCRITICALSECTION traceLock;
TraceBuffer traceBuffer;

void traceSend() {
    std::string_view rows(traceBuffer.begin, static_cast<std::size_t>(traceBuffer.at - traceBuffer.begin));
    traceBuffer.at = traceBuffer.begin; // also if a part gets lost
    if (sending.rowLost) {
        rows.remove_prefix(std::min(rows.find('\n'), rows.size()));
        sending.rowLost = rows.empty();
    }
    const std::size_t sent = qxHostWrite(traceFile, rows, sending.stalled);
    const std::size_t last = rows.rfind('\n', sent);
    sending.begun = last != std::string_view::npos ? sent - last : sending.begun + sent;
    if (sent == rows.size()) {
        return;
    }
    if (sending.begun != 0) { // rows that are in a file are whole
        qxHostTakeBack(traceFile, sending.begun);
    }
    sending.begun = 0;
    sending.rowLost = true;
    if (!std::exchange(lossSeen, true)) {
        lossToTell = true;
    }
}

void traceFlush() {
    if (traceFile.load() != nullptr) {
        traceSend();
    }
}

void traceTellLoss() {
    if (lossToTell.load(std::memory_order_relaxed) && lossToTell.exchange(false)) {
        const QXUninterrupted whole;
        ErrOut("Brenvole DFrame trace: unable to write to its file, rows are lost");
    }
}

void traceLockCreate() {
    qxOnce(lockOnce, [] { qxOSInitializeCriticalSection(&traceLock); });
}

void traceForkedChild() {
    if (std::FILE *const file = traceFile.exchange(nullptr)) {
        const QXAllocating mark;
        traceClosed = 1;
        parentTraces = true;
        std::fclose(file);
        endBuffer();
    }
}

int32_t TraceDecide() {
    if (traceState == 1 && traceFile.load() != nullptr && traceClosed == 0) {
        return 1;
    }
    const QXUninterrupted whole;
    if (!anySourceSaysOn()) {
        traceState = -1;
        return 0;
    }
    Opening opening;
    if (traceClosed == 0) {
        opening.named = TraceBuildPath(opening.tracePath, sizeof opening.tracePath);
    }
    traceLockCreate();
    int32_t on = 0;
    {
        const QXHold hold(traceLock);
        on = TraceOpen(opening);
        traceState = on != 0 ? 1 : -1; // before anybody hears of it
    }
    if (opening.message != nullptr) {
        ErrOut(opening.message, opening.tracePath);
    }
    return on;
}

void TraceClose(const char *reason) {
    if (traceState != 1 || traceFile.load() == nullptr || traceClosed != 0) {
        return;
    }
    if (atExitCame) {
        reason = "atexit";
    }
    TraceSnapshot(reason);
    const QXUninterrupted whole;
    traceLockCreate();
    {
        const QXHold hold(traceLock);
        if (std::FILE *const file = traceFile) {
            TraceWriteSession("meta", "trace_close", reason);
            traceFlush();
            traceFile = nullptr;
            const QXAllocating mark;
            std::fclose(file);
            endBuffer();
        }
        traceClosed = 1;
    }
    traceTellLoss();
}

} // namespace brenvole
