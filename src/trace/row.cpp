// The form of the file: a header line, and rows of 17 columns, each behind its line feed. Byte for byte the same on
// every platform.
#include "trace.h"

#include "util/format.h"

#include <cstring>

namespace brenvole {

namespace {

constexpr char kHeader[] =
    "record,event_id,time_ms,action,result,kind,alloc_id,msgarea,line,dframe,data,base,requested,"
    "actual,ref_count,active_count,detail";

void put(std::FILE *file, const char *text, std::size_t length) { std::fwrite(text, 1, length, file); }
void put(std::FILE *file, char byte) { put(file, &byte, 1); }

// In quotes; a quote inside is doubled, a control character is a blank, so that no text can break its row. What needs
// neither goes out in one piece.
void putQuoted(std::FILE *file, const char *text) {
    put(file, '"');
    for (const char *from = text; from != nullptr && *from != 0;) {
        const char *to = from;
        while (*to != 0 && *to != '"' && static_cast<unsigned char>(*to) >= ' ') {
            ++to;
        }
        put(file, from, static_cast<std::size_t>(to - from));
        if (*to != 0) {
            *to == '"' ? put(file, "\"\"", 2) : put(file, ' ');
            ++to;
        }
        from = to;
    }
    put(file, '"');
}

template <class... Values> void putFormatted(std::FILE *file, const char *format, Values... values) {
    char text[96]; // four numbers of 64 bits with their commas
    put(file, text, qxFormat(text, sizeof text, format, values...));
}

// Nothing for a null pointer.
void putPointer(std::FILE *file, const void *pointer) {
    put(file, ',');
    if (pointer != nullptr) {
        putFormatted(file, "%p", pointer);
    }
}

} // namespace

uint64_t traceEventId = 0;
uint64_t traceActiveCount = 0;

void TraceWriteHeader() { put(traceFile, kHeader, sizeof kHeader - 1); }

void TraceWriteRow(const char *record, const char *action, const char *result, const char *kind, uint64_t allocId,
                   const void *dframe, const void *data, const void *base, uint64_t requested, uint64_t actual,
                   int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    std::FILE *const file = traceFile;
    if (file == nullptr) {
        return;
    }
    ++traceEventId;
    put(file, '\n');
    putQuoted(file, record != nullptr ? record : "event");
    putFormatted(file, ",%I64u,%lu,", traceEventId, static_cast<uint32_t>(qxOSGetTimeMs()));
    putQuoted(file, action);
    put(file, ',');
    putQuoted(file, result);
    put(file, ',');
    putQuoted(file, kind);
    putFormatted(file, ",%I64u,", allocId);
    putQuoted(file, msgarea);
    putFormatted(file, ",%lu", line);
    putPointer(file, dframe);
    putPointer(file, data);
    putPointer(file, base);
    putFormatted(file, ",%I64u,%I64u,%ld,%I64u,", requested, actual, refCount, traceActiveCount);
    putQuoted(file, detail);
}

void TraceWriteSession(const char *record, const char *action, const char *detail) {
    TraceWriteRow(record, action, "ok", "session", 0, nullptr, nullptr, nullptr, 0, 0, 0, "brenvole", 0, detail);
}

} // namespace brenvole
