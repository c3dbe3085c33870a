// The table of what is alive, and the recorders of ordinary events. It is a book of its own: the heaps never read it.
#include "trace.h"

#include <algorithm>
#include <cstring>

namespace brenvole {

namespace {

uint64_t lastAllocId = 0; // under traceLock

// All recorders but TraceRelease take an empty kind for none.
const char *filterOf(const char *kind) { return kind != nullptr && *kind != 0 ? kind : nullptr; }

// Where the address decides alone if there is one.
TraceWanted addressElseOwner(const char *kind, const void *dframe, const void *data) {
    return {kind, data == nullptr ? dframe : nullptr, data};
}

void copyText(char *to, std::size_t capacity, const char *text) {
    const std::size_t length = text != nullptr ? ::strnlen(text, capacity - 1) : 0;
    std::memcpy(to, text != nullptr ? text : "", length);
    to[length] = 0;
}

// A row about an entry, or about nothing known. Lock held.
void writeEvent(const TraceEntry *entry, const char *action, const char *result, const char *kind, const void *dframe,
                const void *data, int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    TraceWriteRow("event", action, result, kind, entry != nullptr ? entry->allocId : 0, dframe, data,
                  entry != nullptr ? entry->base : nullptr, entry != nullptr ? entry->requested : 0,
                  entry != nullptr ? entry->actual : 0, refCount, msgarea, line, detail);
}

// Null if there is no memory: the allocation goes on without an entry.
TraceEntry *makeEntry(const char *kind, const char *msgarea, uint32_t line) {
    void *volatile block = nullptr;
    qxGuarded([&] { block = QXAlloc(sizeof(TraceEntry)); }); // one that throws has none, either
    auto *const entry = static_cast<TraceEntry *>(block);
    if (entry == nullptr) {
        return nullptr;
    }
    *entry = {};
    entry->allocId = ++lastAllocId;
    copyText(entry->kind, sizeof entry->kind, kind);
    copyText(entry->allocMsgarea, sizeof entry->allocMsgarea, msgarea);
    entry->firstEvent = traceEventId + 1; // the coming row
    entry->next = traceActiveHead;
    entry->at = &traceActiveHead;
    if (entry->next != nullptr) {
        entry->next->at = &entry->next;
    }
    traceActiveHead = entry;
    entry->allocLine = line;
    tracePeakActive = std::max(tracePeakActive, ++traceActiveCount);
    return entry;
}

void removeEntry(TraceEntry *entry) {
    traceSetOwner(entry, nullptr);
    traceSetRange(entry, nullptr, nullptr, 0);
    *entry->at = entry->next;
    if (entry->next != nullptr) {
        entry->next->at = entry->at;
    }
    traceActiveCount -= traceActiveCount != 0 ? 1 : 0;
    QXFree(entry);
}

const char *commandName(uint32_t command) {
    constexpr uint32_t kCommandBits = 0xFF;
    constexpr uint32_t kDump = 128;
    static constexpr const char *kNames[] = {"DFRAME_TOTAL",
                                             "DFRAME_LARGEST",
                                             "DFRAME_GRANULARITY",
                                             "DFRAME_SMALLEST",
                                             nullptr,
                                             "DFRAME_RESET",
                                             nullptr,
                                             nullptr,
                                             nullptr,
                                             "DFRAME_ISLOCAL",
                                             "DFRAME_ALLOC",
                                             "DFRAME_FREE",
                                             "DFRAME_ADDREF",
                                             "DFRAME_COPY",
                                             "DFRAME_DUP_FREE",
                                             "DFRAME_SWAP",
                                             "DFRAME_RESIZE",
                                             "DFRAME_FIXALLOC",
                                             "DFRAME_ISBRENVOLE",
                                             "DFRAME_CLOSE",
                                             "DFRAME_TOTALAVAIL",
                                             "DFRAME_FINDALLOC",
                                             "DFRAME_TOTALUSED"};
    const uint32_t number = command & kCommandBits;
    const char *const name = number == kDump ? "DFRAME_DUMP" : number < std::size(kNames) ? kNames[number] : nullptr;
    return name != nullptr ? name : "DFRAME_UNKNOWN";
}

} // namespace

TraceEntry *traceActiveHead = nullptr;
uint64_t tracePeakActive = 0;

void traceNoteSite(TraceEntry *entry, const char *msgarea, uint32_t line) {
    entry->lastLine = line;
    copyText(entry->lastMsgarea, sizeof entry->lastMsgarea, msgarea);
}

void traceRecordCall(uint32_t command, int64_t param1, const void *param2, const void *dframe, const void *data,
                     const char *msgarea, uint32_t line) {
    traceLocked(msgarea, [&](const char *area) {
        const TraceEntry *const entry = traceFind({nullptr, dframe, data});
        const bool local = static_cast<int32_t>(command) < 0;
        char detail[160];
        char *to = tracePutHex<8>(tracePutText(detail, "flags=0x"), command);
        to = tracePutNumber(tracePutText(to, " param1="), param1);
        to = tracePutHex<16>(tracePutText(to, " param2=0x"), reinterpret_cast<uintptr_t>(param2));
        *tracePutText(to, local ? " sysheap" : "") = 0;
        TraceWriteRow("event", commandName(command), "call", local ? "local" : "dframe",
                      entry != nullptr ? entry->allocId : 0, dframe, data, entry != nullptr ? entry->base : nullptr,
                      static_cast<uint64_t>(param1), 0, entry != nullptr ? entry->refCount : 0, area, line, detail);
    });
    traceTellLoss(); // other events come in the midst of an operation
}

void traceRecordAlloc(const char *kind, const void *dframe, const void *data, const void *base, uint64_t requested,
                      uint64_t actual, int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    traceLocked(msgarea, [&](const char *area) {
        TraceEntry *entry = traceFind(addressElseOwner(filterOf(kind), dframe, data));
        if (entry == nullptr) {
            entry = makeEntry(kind, area, line);
        }
        if (entry == nullptr) {
            TraceWriteRow("event", "alloc", "trace_alloc_failed", kind, 0, dframe, data, base, requested, actual,
                          refCount, area, line, detail);
            return;
        }
        traceSetOwner(entry, dframe);
        traceSetRange(entry, data, base != nullptr ? base : data, actual);
        entry->requested = requested;
        entry->refCount = refCount;
        traceNoteSite(entry, area, line);
        writeEvent(entry, "alloc", "ok", kind, dframe, data, refCount, area, line, detail);
        entry->lastEvent = traceEventId;
    });
}

void traceRecordRelease(const char *action, const char *kind, const void *dframe, const void *data, int32_t refCount,
                        const char *msgarea, uint32_t line, const char *detail) {
    traceLocked(msgarea, [&](const char *area) {
        TraceEntry *const entry = traceFind(addressElseOwner(kind, dframe, data));
        const char *const result = entry == nullptr ? "missing" : refCount > 0 ? "deref" : "release";
        writeEvent(entry, action, result, kind, dframe, data, refCount, area, line,
                   detail); // counts the entry still
        if (entry == nullptr) {
            return;
        }
        entry->lastEvent = traceEventId;
        if (refCount > 0) {
            entry->refCount = refCount;
            traceNoteSite(entry, area, line);
            return;
        }
        removeEntry(entry);
    });
}

namespace {

void touch(TraceEntry *entry, const char *action, const char *kind, const void *dframe, const void *data,
           int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    if (entry != nullptr) {
        entry->refCount = refCount;
        traceNoteSite(entry, msgarea, line);
    }
    writeEvent(entry, action, entry != nullptr ? "ok" : "missing", kind, dframe, data, refCount, msgarea, line,
               detail);
    if (entry != nullptr) {
        entry->lastEvent = traceEventId;
    }
}

} // namespace

void traceRecordSwapOwner(const char *action, const char *kind, const void *dframe, const void *data,
                          int32_t refCount, const char *msgarea, uint32_t line, const char *detail) {
    traceLocked(msgarea, [&](const char *area) {
        TraceEntry *const entry = traceFind({filterOf(kind), nullptr, data});
        if (entry != nullptr) {
            traceSetOwner(entry, dframe); // the new owner, also if it is null
        }
        touch(entry, action, kind, dframe, data, refCount, area, line, detail);
    });
}

void traceRecordTouch(const char *action, const char *kind, const void *dframe, const void *data, int32_t refCount,
                      const char *msgarea, uint32_t line, const char *detail) {
    traceLocked(msgarea, [&](const char *area) {
        TraceEntry *const entry = traceFind({filterOf(kind), dframe, data});
        if (entry != nullptr && dframe != nullptr) {
            traceSetOwner(entry, dframe);
        }
        touch(entry, action, kind, dframe, data, refCount, area, line, detail);
    });
}

} // namespace brenvole
