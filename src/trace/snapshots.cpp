// Problems, and lists of all that is alive: after each of the first problems, and of the later ones after those whose
// number is a power of two, so that a program with many of them writes few lists.
#include "trace.h"

#include "local/counters.h"
#include "util/format.h"

#include <algorithm>
#include <bit>

namespace brenvole {

namespace {

constexpr uint64_t kEachUpTo = 8;

uint64_t problemCount = 0; // under traceLock

// Lock held.
void writeProblem(const char *action, const void *dframe, const void *data, uint64_t requested, uint64_t actual,
                  int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    TraceEntry *const entry = traceFind({nullptr, dframe, data});
    TraceWriteRow("problem", action, "problem", entry != nullptr ? entry->kind : "",
                  entry != nullptr ? entry->allocId : 0, dframe, data, entry != nullptr ? entry->base : nullptr,
                  requested, actual, refCount, msgarea, line, detail);
    if (entry != nullptr) {
        entry->lastEvent = traceEventId;
        entry->refCount = refCount;
        traceNoteSite(entry, msgarea, line);
    }
}

char *putSite(char *to, const char *msgarea, uint32_t line) {
    return tracePutNumber(tracePutText(tracePutText(to, msgarea), ":"), line);
}

void writeActive(const TraceEntry *entry) {
    constexpr std::size_t kTold = 255;
    char detail[2 * kTraceArea + 128]; // with room for what isn't told
    char *to = putSite(tracePutText(detail, "alloc_site="), entry->allocMsgarea, entry->allocLine);
    to = putSite(tracePutText(to, " last_site="), entry->lastMsgarea, entry->lastLine);
    to = tracePutNumber(tracePutText(to, " alloc_event="), entry->firstEvent);
    to = tracePutNumber(tracePutText(to, " last_event="), entry->lastEvent);
    *std::min(to, detail + kTold) = 0;
    TraceWriteRow("active", "outstanding", "active", entry->kind, entry->allocId, entry->dframe, entry->data,
                  entry->base, entry->requested, entry->actual, entry->refCount, entry->allocMsgarea,
                  entry->allocLine, detail);
}

// Lock held.
void writeSnapshot(const char *reason) {
    char summary[256] = {};
    qxFormat(summary, sizeof summary,
             "reason=%s dframes=%I64u dframe_bytes=%I64u phys_allocs=%I64u local_allocs=%I64u peak_active=%I64u",
             reason != nullptr ? reason : "", dframes.load(), dframe_bytes.load(), phys_allocs.load(),
             local_allocs.load(), tracePeakActive);
    TraceWriteSession("summary", "snapshot", summary);
    for (const TraceEntry *entry = traceActiveHead; entry != nullptr; entry = entry->next) {
        writeActive(entry);
    }
    traceFlush();
}

} // namespace

void traceRecordProblem(const char *action, const void *dframe, const void *data, uint64_t requested, uint64_t actual,
                        int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    volatile uint64_t number = 0;
    traceLocked(msgarea, [&](const char *area) {
        number = ++problemCount;
        writeProblem(action, dframe, data, requested, actual, refCount, area, line, detail);
    });
    if (number <= kEachUpTo || std::has_single_bit(uint64_t{number})) {
        TraceSnapshot(action);
    }
}

void TraceSnapshot(const char *reason) {
    if (traceState != 1 || traceFile.load() == nullptr || traceClosed != 0) {
        return;
    }
    traceLocked(nullptr, [reason](const char *) { writeSnapshot(reason); });
}

} // namespace brenvole
