/** @file
 *  The trace: a comma-separated file with a row for every frame and allocation event. Off unless the environment or
 * the configuration says on. The operations call the recorders, one line each; the trace calls nothing of theirs, and
 *  reads four counters. Nothing that it does changes what an operation does.
 *
 *  traceLock guards the file, the live table and all counters but those that TraceIsEnabled reads; it is the
 * innermost lock of the system, and recorders are called with and without others held. */
#ifndef BRENVOLE_TRACE_H
#define BRENVOLE_TRACE_H

#include "util/guard.h"
#include "util/qxutil.h"
#include "util/uninterrupted.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

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

/** Runs a recorder's work with traceLock held, as work(msgarea). A call site's text that has gone is as good as
 *  none. A fault in the work, such as an allocator's, ends it and nothing else: the program goes on as it does
 *  without the trace. */
template <class Work> void traceLocked(const char *msgarea, Work &&work) {
    const QXUninterrupted whole;
    const char *volatile readable = nullptr;
    qxGuarded([&] { readable = msgarea != nullptr && std::strlen(msgarea) != 0 ? msgarea : nullptr; });
    traceLockCreate();
    qxOSEnterCriticalSection(&traceLock);
    qxGuarded([&] { work(readable); });
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

/** One live allocation: a frame header, or data in either heap. A QXAlloc block of its own. */
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
};

extern TraceEntry *traceActiveHead; // newest first
extern uint64_t tracePeakActive;    // highest value of traceActiveCount

/** The newest entry that the address lies in, or whose owner is the frame. Lock held. */
TraceEntry *traceFindAny(const void *dframe, const void *data);

/** Notes the latest call site. Lock held. */
void traceNoteSite(TraceEntry *entry, const char *msgarea, uint32_t line);
/** @} */

} // namespace brenvole

#endif
