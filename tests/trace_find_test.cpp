// Which entry a row is about, of thousands: the one that a walk along the list meets first, whatever finds it.
#include "trace_fixture.h"
#include "util/format.h"

#include <random>

using namespace brenvole;

namespace {

enum Recorder { kAlloc, kRelease, kSwapOwner, kTouch, kCall, kProblem, kRecorders };

constexpr uint32_t kLine = 4000000000;

const void *at(uint64_t address) { return reinterpret_cast<const void *>(address); }

std::string escaped(const std::string &text) {
    std::string in;
    for (const char c : text) {
        in += c == '"' ? "\"\"" : std::string(1, static_cast<unsigned char>(c) < ' ' ? ' ' : c);
    }
    return in;
}

struct Event {
    std::mt19937_64 random{7};
    Recorder recorder;
    const char *kind;
    const void *dframe, *data, *base;
    uint64_t actual;
    int32_t references;
    std::string area;
    uint64_t made = 0; // entries

    uint64_t below(uint64_t bound) { return random() % bound; }

    // Crowded addresses, some thousand that lie apart, and the last there are; few owners, and many.
    void next() {
        static const char *const kinds[] = {"phys", "local", "dframe", "", "longer than fifteen", nullptr};
        const uint64_t places[] = {65536 + below(512) * 8, (below(800) << 20) + below(2) * below(1 << 10),
                                   0 - below(300) * 64, 0};
        recorder = below(3) == 0 ? kAlloc : below(1000) == 0 ? kProblem : static_cast<Recorder>(below(kProblem));
        kind = kinds[below(20) == 0 ? below(6) : below(3)];
        data = at(places[below(20) == 0 ? 2 + below(2) : below(8) == 0 ? 0 : 1]);
        base = at(below(3) * (reinterpret_cast<uintptr_t>(data) + 64 - below(128)) / 2);
        const void *const owners[] = {nullptr, at(1 + below(3)), data, at(below(800) << 20)};
        dframe = owners[below(4)];
        actual = below(4) * (uint64_t{1} << below(22)) / 2;
        references = static_cast<int32_t>(below(4)) - 2;
        area.assign(below(4) == 0 ? below(3000) : below(30), 'x');
        for (std::size_t i = below(40); i < area.size(); i += below(300) + 1) {
            area[i] = static_cast<char>(1 + below(255));
        }
    }

    const TraceEntry *walk() const {
        const bool any = recorder >= kCall || kind == nullptr || (*kind == 0 && recorder != kRelease);
        const bool ownerToo = data == nullptr || recorder == kTouch || recorder >= kCall;
        for (const TraceEntry *entry = traceActiveHead; entry != nullptr; entry = entry->next) {
            const auto from = reinterpret_cast<uintptr_t>(entry->base), wanted = reinterpret_cast<uintptr_t>(data);
            const bool inside = from != 0 && wanted >= from && wanted - from < entry->actual;
            if (((data != nullptr && (entry->data == data || entry->base == data || inside)) ||
                 (dframe != nullptr && entry->dframe == dframe && ownerToo && recorder != kSwapOwner)) &&
                (any || std::strcmp(entry->kind, kind) == 0)) {
                return entry;
            }
        }
        return nullptr;
    }

    void record() const {
        switch (recorder) {
        case kAlloc: TraceAlloc(kind, dframe, data, base, 1, actual, references, area.c_str(), kLine, "d"); break;
        case kRelease: TraceRelease("act", kind, dframe, data, references, area.c_str(), kLine, "d"); break;
        case kSwapOwner: TraceSwapOwner("act", kind, dframe, data, references, area.c_str(), kLine, "d"); break;
        case kTouch: TraceTouch("act", kind, dframe, data, references, area.c_str(), kLine, "d"); break;
        case kCall: TraceCall(4, 1, nullptr, dframe, data, area.c_str(), kLine); break;
        default: TraceProblem("act", dframe, data, 1, actual, references, area.c_str(), kLine, "d");
        }
    }

    // From the result to the area.
    std::string columns() {
        const TraceEntry *const found = walk();
        const char *const results[] = {"ok", references > 0 ? "deref" : "release", "ok", "ok", "call", "problem"};
        const bool missing = found == nullptr && recorder != kAlloc && recorder < kCall;
        const char *const told = recorder == kCall      ? "dframe"
                                 : recorder != kProblem ? kind
                                 : found != nullptr     ? found->kind
                                                        : "";
        const uint64_t id = found != nullptr ? found->allocId : recorder == kAlloc ? ++made : 0;
        return std::string(",\"") + (missing ? "missing" : results[recorder]) + "\",\"" +
               (told != nullptr ? told : "") + "\"," + std::to_string(id) + ",\"" + escaped(area) + "\"," +
               std::to_string(kLine) + ",";
    }
};

TEST_F(TraceFile, TheFirstThatAWalkMeets) {
    inProcess([this] {
        Event event;
        std::map<uint64_t, std::string> rows; // by their numbers
        uint64_t most = 0;
        replaceFree = [](void *) { throw 1; }; // an entry's end is the last of its row's work, which isn't done again
        TraceIsEnabled();
        for (int step = 0; step < 12000; ++step, most = std::max(most, traceActiveCount)) {
            event.next();
            rows[traceEventId + 1] = event.columns();
            event.record();
        }
        uint64_t number = traceEventId + 1; // of the head of a list
        TraceSnapshot("end");
        for (const TraceEntry *entry = traceActiveHead; entry != nullptr; entry = entry->next) {
            char detail[256];
            qxFormat(detail, sizeof detail, "alloc_site=%s:%lu last_site=%s:%lu alloc_event=%I64u last_event=%I64u",
                     entry->allocMsgarea, entry->allocLine, entry->lastMsgarea, entry->lastLine, entry->firstEvent,
                     entry->lastEvent);
            rows[++number] = ",\"" + escaped(detail) + "\"";
        }
        std::ifstream lines(file, std::ios::binary);
        std::string line;
        std::getline(lines, line);
        uint64_t bad = 0;
        for (number = 1; std::getline(lines, line); ++number) {
            const auto row = rows.find(number);
            bad += row == rows.end() ? line.starts_with("\"event\"") : line.find(row->second) == std::string::npos;
        }
        std::_Exit(bad == 0 && number > rows.rbegin()->first && most > 3000 ? 0 : 1);
    });
}

} // namespace
