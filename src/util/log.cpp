// Messages: formatted on the calling thread, then handed whole to the host's sink or to the log.
#include "allocating.h"
#include "fork.h"
#include "format.h"
#include "platform.h"
#include "qxutil.h"
#include "static_lock.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

namespace {

// Length of nearly every message; a longer one takes a block of its own.
constexpr std::size_t kUsualLength = 1024;

struct Sink {
    QXLogSink function;
    void *context;
};

Sink logSink = {nullptr, nullptr}; // the host's, or null for the log; under qxSinkLock

// The file gets each message with exactly one line feed at its end; those inside it stay.
void writeToLog(char *text, std::size_t length) {
    while (length != 0 && text[length - 1] == '\n') {
        --length;
    }
    text[length] = '\n'; // takes the place of a line feed or of the terminator
    qxLogWrite(text, length + 1);
}

void deliver(uint32_t severity, char *text) {
    Sink sink;
    qxHookFork();
    {
        const std::scoped_lock hold(qxSinkLock);
        sink = logSink;
    }
    if (sink.function != nullptr) { // no lock is held here: the sink may log, or set another sink
        sink.function(severity, text, sink.context);
    } else {
        writeToLog(text, std::strlen(text));
    }
}

void logV(uint32_t severity, const char *format, std::va_list arguments) {
    char usual[kUsualLength];
    const std::size_t length = qxFormatV(usual, sizeof usual, format, arguments);
    char *text = usual;
    char *block = nullptr;
    if (length >= sizeof usual) {
        // Not QXAlloc: a message often tells that QXAlloc has failed. Refused, the message goes out cut.
        {
            const QXAllocating mark;
            block = static_cast<char *>(std::malloc(length + 1));
        }
        if (block != nullptr) {
            qxFormatV(block, length + 1, format, arguments);
            text = block;
        }
    }
    deliver(severity, text);
    if (block != nullptr) {
        const QXAllocating mark;
        std::free(block);
    }
}

} // namespace

void ErrOut(const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    logV(QX_STATUS, format, arguments);
    va_end(arguments);
}

void ErrFmtOut(uint32_t severity, uint32_t, uint32_t, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    logV(severity, format, arguments);
    va_end(arguments);
}

uint32_t ErrMsgOut(uint32_t status, const char *text, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    constexpr uint32_t kSeverityBits = 0xC0000000u;
    if (text != nullptr) {
        ErrFmtOut(status & kSeverityBits, 0, 0, "%s", text);
    }
    return status;
}

void qxSetLogSink(QXLogSink sink, void *context) {
    qxHookFork();
    const std::scoped_lock hold(qxSinkLock);
    logSink = {sink, context};
}
