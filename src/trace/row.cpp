// The form of the file: a header line, and rows of 17 columns, each behind its line feed. Byte for byte the same on
// every platform.
#include "trace.h"

#include <cstring>

namespace brenvole {

namespace {

constexpr char kHeader[] =
    "record,event_id,time_ms,action,result,kind,alloc_id,msgarea,line,dframe,data,base,requested,"
    "actual,ref_count,active_count,detail";

constexpr std::size_t kWord = sizeof(uint64_t);
constexpr std::size_t kShort = 300;                          // texts of up to so many bytes are copied whole
constexpr std::size_t kBetween = 8 * (kTraceDigits + 1) + 4; // at most, between two texts, with their quotes

// `to`, or where to go on if so many bytes wouldn't fit behind it.
char *withRoom(char *to, std::size_t bytes) {
    if (static_cast<std::size_t>(traceBuffer.end - to) >= bytes) [[likely]] {
        return to;
    }
    traceBuffer.at = to;
    traceSend();
    return traceBuffer.at;
}

// 0 if none of the eight bytes is a quote or below a blank.
uint64_t notPlain(uint64_t bytes) {
    constexpr uint64_t kEach = 0x0101010101010101;
    const uint64_t quotes = bytes ^ (kEach * '"');
    return (((bytes - kEach * ' ') & ~bytes) | ((quotes - kEach) & ~quotes)) & (kEach * 0x80);
}

template <class Word> uint64_t copyWord(char *to, const char *from) {
    Word word = 0;
    std::memcpy(&word, from, sizeof word);
    std::memcpy(to, &word, sizeof word);
    return word;
}

// Copies the text a word at a time, of which the last two may overlap. False if it can't stand as it is: then what
// was copied counts for nothing.
bool copyPlain(char *to, const char *text, std::size_t length) {
    uint64_t found = 0;
    if (length >= kWord) {
        for (std::size_t at = 0; at < length - kWord; at += kWord) {
            found |= notPlain(copyWord<uint64_t>(to + at, text + at));
        }
        found |= notPlain(copyWord<uint64_t>(to + length - kWord, text + length - kWord));
    } else if (length >= kWord / 2) {
        const uint64_t low = copyWord<uint32_t>(to, text);
        found = notPlain(low | copyWord<uint32_t>(to + length - kWord / 2, text + length - kWord / 2) << 32);
    } else {
        uint64_t word = ~uint64_t{0};
        for (std::size_t at = 0; at < length; ++at) {
            to[at] = text[at];
            word = word << 8 | static_cast<unsigned char>(text[at]);
        }
        found = notPlain(word);
    }
    return found == 0;
}

// A quote is doubled, a control character is a blank, so that no text can break its row.
char *putBytes(char *to, const char *text, std::size_t length) {
    for (; length != 0; --length, ++text) {
        to = withRoom(to, 2 + kBetween);
        if (*text == '"') {
            *to++ = '"';
        }
        *to++ = static_cast<unsigned char>(*text) < ' ' ? ' ' : *text;
    }
    return to;
}

// In quotes, behind a byte. Leaves room for what stands in front of the next text.
char *putText(char *to, const char *text, char before = ',') {
    const std::size_t length = text != nullptr ? std::strlen(text) : 0;
    to = withRoom(to, kShort + kBetween);
    *to++ = before;
    *to++ = '"';
    if (length <= kShort && copyPlain(to, text, length)) [[likely]] {
        to += length;
    } else {
        to = putBytes(to, text, length);
    }
    *to++ = '"';
    return to;
}

template <class Number> char *putNumber(char *to, Number number) {
    *to++ = ',';
    return tracePutNumber(to, number);
}

// Nothing for a null pointer.
char *putPointer(char *to, const void *pointer) {
    *to++ = ',';
    return pointer != nullptr ? tracePutHex<16>(to, reinterpret_cast<uintptr_t>(pointer)) : to;
}

} // namespace

uint64_t traceEventId = 0;
uint64_t traceActiveCount = 0;

void TraceWriteHeader() { traceBuffer.at = tracePutText(traceBuffer.at, kHeader); }

void TraceWriteRow(const char *record, const char *action, const char *result, const char *kind, uint64_t allocId,
                   const void *dframe, const void *data, const void *base, uint64_t requested, uint64_t actual,
                   int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    if (traceFile.load() == nullptr) {
        return;
    }
    ++traceEventId;
    char *to = putText(traceBuffer.at, record != nullptr ? record : "event", '\n');
    to = putNumber(to, traceEventId);
    to = putNumber(to, static_cast<uint32_t>(qxOSGetTimeMs()));
    to = putText(to, action);
    to = putText(to, result);
    to = putText(to, kind);
    to = putNumber(to, allocId);
    to = putText(to, msgarea);
    to = putNumber(to, line);
    to = putPointer(to, dframe);
    to = putPointer(to, data);
    to = putPointer(to, base);
    to = putNumber(to, requested);
    to = putNumber(to, actual);
    to = putNumber(to, refCount);
    to = putNumber(to, traceActiveCount);
    traceBuffer.at = putText(to, detail);
}

void TraceWriteSession(const char *record, const char *action, const char *detail) {
    TraceWriteRow(record, action, "ok", "session", 0, nullptr, nullptr, nullptr, 0, 0, 0, "brenvole", 0, detail);
}

} // namespace brenvole
