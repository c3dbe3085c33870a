// Whether the trace runs, where its file lies, and its end.
#include "trace.h"

#include "util/format.h"
#include "util/hold.h"
#include "util/host.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace brenvole {

namespace {

constexpr uint32_t kPathCapacity = 520;
constexpr std::size_t kFileBuffer = 0x100000; // rows stay in it until a flush
constexpr int32_t kScope = -1;                // of configuration values, as QXUtil wants it

char tracePath[kPathCapacity];
char *fileBuffer = nullptr; // of the open file
bool atExitDone = false;
std::once_flag lockOnce;

bool equalsIgnoringCase(const char *text, const char *lower) {
    for (; *text != 0 && *lower != 0; ++text, ++lower) {
        const char letter = *text >= 'A' && *text <= 'Z' ? static_cast<char>(*text - 'A' + 'a') : *text;
        if (letter != *lower) {
            return false;
        }
    }
    return *text == *lower;
}

bool environmentSaysOn(const char *name) {
    const char *const value = qxHostEnvironment(name);
    if (value == nullptr || *value == 0) {
        return false;
    }
    return std::strchr("1yY", *value) != nullptr || equalsIgnoringCase(value, "true") ||
           equalsIgnoringCase(value, "on") || equalsIgnoringCase(value, "yes");
}

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

void closeAtExit() { TraceClose("atexit"); }

// Lock held.
int32_t TraceOpen() {
    if (traceFile.load() != nullptr) { // 1
        return 1;
    }
    if (traceClosed != 0) { // 2
        return 0;
    }
    const bool named = TraceBuildPath(tracePath, sizeof tracePath);                           // 3
    std::FILE *const file = named ? std::fopen(tracePath, "wb") : qxCreatePrivate(tracePath); // 4
    if (file == nullptr) {
        ErrOut("Brenvole DFrame trace enabled but unable to open '%s'", tracePath);
        return 0;
    }
    fileBuffer = static_cast<char *>(std::malloc(kFileBuffer)); // 5; a null buffer would be one of another size
    if (fileBuffer != nullptr) {
        std::setvbuf(file, fileBuffer, _IOFBF, kFileBuffer);
    }
    traceFile = file;
    TraceWriteHeader();
    TraceWriteSession("meta", "trace_open", tracePath);
    std::fflush(file);                                      // 6
    ErrOut("Brenvole DFrame trace enabled: %s", tracePath); // 7
    if (!atExitDone) {                                      // 8
        atExitDone = std::atexit(closeAtExit) == 0;
    }
    return 1;
}

} // namespace

std::atomic<int32_t> traceState = 0;
std::atomic<uint32_t> traceRecheck = 0;
std::atomic<int32_t> traceClosed = 0;
std::atomic<std::FILE *> traceFile = nullptr;
QXCRITICALSECTION traceLock;

void traceLockCreate() {
    std::call_once(lockOnce, [] { qxOSInitializeCriticalSection(&traceLock); });
}

int32_t TraceDecide() {
    if (!anySourceSaysOn()) {
        traceState = -1;
        return 0;
    }
    traceLockCreate();
    const QXHold hold(traceLock);
    traceState = TraceOpen() != 0 ? 1 : -1;
    return traceState == 1 ? 1 : 0;
}

void TraceClose(const char *reason) {
    if (traceState != 1 || traceFile.load() == nullptr || traceClosed != 0) {
        return;
    }
    TraceSnapshot(reason);
    traceLockCreate();
    const QXHold hold(traceLock);
    if (std::FILE *const file = traceFile) {
        TraceWriteSession("meta", "trace_close", reason);
        traceFile = nullptr;
        std::fclose(file);
        std::free(fileBuffer);
        fileBuffer = nullptr;
    }
    traceClosed = 1;
}

} // namespace brenvole
