/** @file
 *  The trace: a comma-separated file with a row for every frame and allocation event. Off unless the
 *  environment or the configuration says on. The operations call the recorders, one line each; the trace calls
 *  nothing of theirs, and reads four counters. Nothing that it does changes what an operation does.
 *
 *  traceLock guards the file, the live table and all counters but those that TraceIsEnabled reads; it is the
 *  innermost lock of the system, and recorders are called with and without others held. */
#ifndef BRENVOLE_TRACE_H
#define BRENVOLE_TRACE_H

#include "util/guard.h"
#include "util/qxutil.h"
#include "util/uninterrupted.h"

#include <array>
#include <atomic>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace brenvole {

/** @name Activation and file
 *  @{ */
// Inline, so that a test reads them in place and not by way of a table.
inline std::atomic<int32_t> traceState = 0;    // 0 not decided yet, 1 on, -1 off
inline std::atomic<uint32_t> traceRecheck = 0; // calls of TraceIsEnabled while off; an increment may get lost
extern std::atomic<int32_t> traceClosed;       // 1 once the trace has ended for good
extern std::atomic<std::FILE *> traceFile;     // written under traceLock
extern QXCRITICALSECTION traceLock;

/** Creates traceLock once, whichever thread comes first. It is never deleted. */
void traceLockCreate();

/** A forked child has a file of its parent's, with rows that haven't gone out and that the parent will send: the
 * child's trace ends where it begins. */
void traceForkedChild();

/** Runs a recorder's work with traceLock held, as work(msgarea). A call site's text that has gone is as good as
 *  none. A fault in the work, such as an allocator's, ends it and nothing else: the program goes on as it does
 *  without the trace. */
template <class Work> void traceLocked(const char *msgarea, Work &&work) {
    const QXUninterrupted whole;
    volatile bool seen = false;
    traceLockCreate();
    qxOSEnterCriticalSection(&traceLock);
    const bool done = qxGuarded([&] {
        const bool none = msgarea == nullptr || std::strlen(msgarea) == 0;
        seen = true;
        work(none ? nullptr : msgarea);
    });
    if (!done && !seen) {
        qxGuarded([&] { work(nullptr); });
    }
    qxOSLeaveCriticalSection(&traceLock);
}

/** The rest of TraceIsEnabled: 1 at once while the trace runs; else reads the sources, and opens the file if one says
 *  on. */
int32_t TraceDecide();

/** False in a build that measures what the calls cost: then none is made. */
#ifdef BRENVOLE_NO_TRACE_CALLS
inline constexpr bool kTraceCalls = false;
#else
inline constexpr bool kTraceCalls = true;
#endif

/** 1 if a recorder may go on, else 0. While the trace is off, the sources are read on every 4096th call. */
inline int32_t TraceIsEnabled() {
    constexpr uint32_t kRecheckMask = 0xFFF;
    if constexpr (!kTraceCalls) {
        return 0;
    }
    if (traceState.load(std::memory_order_relaxed) == -1) [[likely]] {
        const uint32_t calls = traceRecheck.load(std::memory_order_relaxed) + 1;
        traceRecheck.store(calls, std::memory_order_relaxed);
        if ((calls & kRecheckMask) != 0) [[likely]] {
            return 0;
        }
    }
    return TraceDecide();
}

/** Ends the trace: a last snapshot, "trace_close", and the file is closed. Later events are dropped.
 *  @param reason  stands in both; may be null */
void TraceClose(const char *reason);
/** @} */

/** @name Rows
 *  @{ */
extern uint64_t traceEventId;     // of the last row
extern uint64_t traceActiveCount; // entries of the live table

/** Bytes that wait to go out. The file has no buffer but this one. Lock held. */
struct TraceBuffer {
    char *begin;
    char *at; // behind the last
    char *end;
};
extern TraceBuffer traceBuffer;

/** Sends them to the file; what it doesn't take is lost. Lock held, file open. */
void traceSend();
/** The same at the points where the file has to have them, if it is open. Lock held. */
void traceFlush();

/** Logs the first loss of rows, once in the process. Nothing is locked: a message sink may run commands. */
void traceTellLoss();

/** The first line of the file. */
void TraceWriteHeader();

/** Writes one row, if the file is open. Lock held; no allocation. Null texts are empty, a null `record` is "event".
 */
void TraceWriteRow(const char *record, const char *action, const char *result, const char *kind, uint64_t allocId,
                   const void *dframe, const void *data, const void *base, uint64_t requested, uint64_t actual,
                   int32_t refCount, const char *msgarea, uint32_t line, const char *detail);

/** A row about the trace itself. Lock held. */
void TraceWriteSession(const char *record, const char *action, const char *detail);
/** @} */

/** @name Texts
 *  Each gives the end of what it has put. There is room.
 *  @{ */
inline constexpr std::size_t kTraceDigits = 20; // of 64 bits, or a sign and those of 32

template <class Number> char *tracePutNumber(char *to, Number number) {
    if (number >= 0 && number <= 9) { // most are
        *to = static_cast<char>('0' + number);
        return to + 1;
    }
    return std::to_chars(to, to + kTraceDigits, number).ptr;
}

/** Two digits of each byte. */
inline constexpr auto kTraceHex = [] {
    std::array<std::array<char, 2>, 256> digits{};
    for (std::size_t byte = 0; byte < digits.size(); ++byte) {
        digits[byte] = {"0123456789ABCDEF"[byte / 16], "0123456789ABCDEF"[byte % 16]};
    }
    return digits;
}();

template <unsigned digits> char *tracePutHex(char *to, uint64_t number) {
    for (unsigned digit = digits; digit != 0; number >>= 8) {
        digit -= 2;
        std::memcpy(to + digit, kTraceHex[number & 0xFF].data(), 2);
    }
    return to + digits;
}

inline char *tracePutText(char *to, std::string_view text) {
    std::memcpy(to, text.data(), text.size());
    return to + text.size();
}
/** @} */

/** @name Recorders
 *  Each returns at once while the trace is off: the test is inlined where the event is. `msgarea` and `line` name
 *  the call site; all texts may be null.
 *  @{ */
void traceRecordCall(uint32_t command, int64_t param1, const void *param2, const void *dframe, const void *data,
                     const char *msgarea, uint32_t line);
void traceRecordAlloc(const char *kind, const void *dframe, const void *data, const void *base, uint64_t requested,
                      uint64_t actual, int32_t refCount, const char *msgarea, uint32_t line, const char *detail);
void traceRecordRelease(const char *action, const char *kind, const void *dframe, const void *data, int32_t refCount,
                        const char *msgarea, uint32_t line, const char *detail);
void traceRecordSwapOwner(const char *action, const char *kind, const void *dframe, const void *data,
                          int32_t refCount, const char *msgarea, uint32_t line, const char *detail);
void traceRecordTouch(const char *action, const char *kind, const void *dframe, const void *data, int32_t refCount,
                      const char *msgarea, uint32_t line, const char *detail);
void traceRecordProblem(const char *action, const void *dframe, const void *data, uint64_t requested, uint64_t actual,
                        int32_t refCount, const char *msgarea, uint32_t line, const char *detail);

/** The same where an event is on every frame's way: what `record` reads, it reads only while the trace runs. */
template <class Record> void whenTracing(const Record &record) {
    if (TraceIsEnabled() != 0) [[unlikely]] {
        record();
    }
}

inline void TraceCall(uint32_t command, int64_t param1, const void *param2, const void *dframe, const void *data,
                      const char *msgarea, uint32_t line) {
    whenTracing([&] { traceRecordCall(command, param1, param2, dframe, data, msgarea, line); });
}
inline void TraceAlloc(const char *kind, const void *dframe, const void *data, const void *base, uint64_t requested,
                       uint64_t actual, int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    whenTracing(
        [&] { traceRecordAlloc(kind, dframe, data, base, requested, actual, refCount, msgarea, line, detail); });
}
inline void TraceRelease(const char *action, const char *kind, const void *dframe, const void *data, int32_t refCount,
                         const char *msgarea, uint32_t line, const char *detail) {
    whenTracing([&] { traceRecordRelease(action, kind, dframe, data, refCount, msgarea, line, detail); });
}
inline void TraceSwapOwner(const char *action, const char *kind, const void *dframe, const void *data,
                           int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    whenTracing([&] { traceRecordSwapOwner(action, kind, dframe, data, refCount, msgarea, line, detail); });
}
inline void TraceTouch(const char *action, const char *kind, const void *dframe, const void *data, int32_t refCount,
                       const char *msgarea, uint32_t line, const char *detail) {
    whenTracing([&] { traceRecordTouch(action, kind, dframe, data, refCount, msgarea, line, detail); });
}
inline void TraceProblem(const char *action, const void *dframe, const void *data, uint64_t requested,
                         uint64_t actual, int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    whenTracing(
        [&] { traceRecordProblem(action, dframe, data, requested, actual, refCount, msgarea, line, detail); });
}

/** Owners and addresses are numbers in the heaps. */
inline const void *tracePointer(uint64_t address) { return reinterpret_cast<const void *>(address); }

/** Writes all that is alive, newest first, and flushes. Never opens the file. */
void TraceSnapshot(const char *reason);
/** @} */

/** @name The live table, for its units
 *  @{ */
inline constexpr std::size_t kTraceKind = 16; // with terminator
inline constexpr std::size_t kTraceArea = 96;

struct TraceEntry;

/** A place in a chain of those that find entries. */
struct TraceLink {
    TraceLink *next;
    TraceLink **at; // what leads here; null if the link stands in no chain
    uint64_t key;
    TraceEntry *entry;
};

/** One live allocation: a frame header, or data in either heap. A QXAlloc block of its own. `dframe`, `data`, `base`
 *  and `actual` are what it is found by: traceSetOwner and traceSetRange alone change them. */
struct TraceEntry {
    TraceEntry *next;
    uint64_t allocId;
    const void *dframe; // who owns it
    const void *data;   // the address that callers have
    const void *base;   // start of the block
    uint64_t requested;
    uint64_t actual; // bytes from base
    int32_t refCount;
    uint64_t firstEvent; // row that made the entry
    uint64_t lastEvent;  // last row about it
    char kind[kTraceKind];
    char allocMsgarea[kTraceArea];
    char lastMsgarea[kTraceArea];
    uint32_t allocLine;
    uint32_t lastLine;
    TraceEntry **at; // what leads here in the list
    TraceLink ownerLink;
    TraceLink rangeLinks[2];
    unsigned level; // of the range, for its chains
};

extern TraceEntry *traceActiveHead; // newest first
extern uint64_t tracePeakActive;    // highest value of traceActiveCount

/** What an entry is to be found by: the address lies in it, or the frame is its owner; null takes part in neither. */
struct TraceWanted {
    const char *kind; // which it must be of; null takes all
    const void *dframe;
    const void *data;
};

/** The newest entry of that kind, or null: the first that a walk from traceActiveHead on would meet. Lock held. */
TraceEntry *traceFind(const TraceWanted &wanted);

/** Changes who owns the entry, or where it lies; null owns nothing and lies nowhere. Lock held. */
void traceSetOwner(TraceEntry *entry, const void *dframe);
void traceSetRange(TraceEntry *entry, const void *data, const void *base, uint64_t actual);

/** Notes the latest call site. Lock held. */
void traceNoteSite(TraceEntry *entry, const char *msgarea, uint32_t line);
/** @} */

} // namespace brenvole

#endif
