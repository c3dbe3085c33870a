/** @file
 *  What is alive at a row of a trace, and what has been until there. It follows the rows as the library's own table
 *  does, and needs memory for what is alive, for each call site once and for each sort of problem once. */
#ifndef TRACEVIEW_LIVE_H
#define TRACEVIEW_LIVE_H

#include "reader.h"
#include "row.h"

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace traceview {

/** Lines of source that have called the library. A site is told by its place in `names`. */
struct Sites {
    struct Name {
        std::string msgarea;
        uint32_t line;
    };
    std::deque<Name> names;
    std::unordered_map<std::string_view, std::map<uint32_t, uint32_t>> places; ///< keys lie in `names`
};

uint32_t siteOf(Sites &sites, std::string_view msgarea, uint32_t line);
/** "mixer.c:14", or "(no call site)". */
std::string siteText(const Sites &sites, uint32_t site);

struct Allocation {
    uint64_t id = 0;
    Kind kind = Kind::none;
    uint32_t allocSite = 0;
    uint32_t lastSite = 0;
    int32_t refCount = 0;
    uint64_t dframe = 0; ///< who owns it
    uint64_t data = 0;
    uint64_t base = 0;
    uint64_t requested = 0;
    uint64_t actual = 0; ///< bytes from base
    uint64_t firstRow = 0;
    uint64_t lastRow = 0;
    uint64_t firstTime = 0;
    uint64_t lastTime = 0;
    uint64_t listedAt = 0; ///< row of the last list that it stood in
};

/** The allocations of one kind, or of all. `peak...Time` is the first moment of the peak. */
struct Figures {
    uint64_t made = 0;
    uint64_t released = 0;
    uint64_t count = 0;
    uint64_t bytes = 0;
    uint64_t peakCount = 0;
    uint64_t peakCountTime = 0;
    uint64_t peakBytes = 0;
    uint64_t peakBytesTime = 0;
};

/** All problems of one name. */
struct ProblemSort {
    uint64_t count = 0;
    uint64_t firstRow = 0;
    uint64_t firstTime = 0;
    uint32_t firstSite = 0;
};

struct Live {
    std::unordered_map<uint64_t, Allocation> allocations; ///< by alloc_id
    Sites sites;
    std::array<Figures, kKinds + 1> figures; ///< by kind; the last of all kinds
    uint64_t problems = 0;
    std::map<std::string, ProblemSort, std::less<>> problemSorts; ///< by action
    uint64_t strangers = 0; ///< events of allocations that the trace has never seen being made
    uint64_t unkept = 0;    ///< allocations that it had no memory to follow
    uint64_t listRow = 0;   ///< head of the last list of what is alive; 0 if there is none
};

/** What a row has changed: an allocation that is gone, one that is there, both if it has moved, or neither. */
struct Change {
    std::optional<Allocation> gone;
    const Allocation *made = nullptr;
};

/** Follows the row. Rows come in the file's order. */
Change liveFollow(Live &live, const Row &row);

/** Behind the last row: where rows were lost, what the trace's closing list doesn't have is gone. */
void liveSettle(Live &live, const Findings &findings);

/** All of one kind, or of all kinds for Kind::none. */
const Figures &liveFigures(const Live &live, Kind kind);

/** What is to be said beyond readerRemarks. */
std::vector<std::string> liveRemarks(const Live &live);

/** True if the whole trace tells that nothing was lost and nothing went wrong. */
bool liveClean(const Live &live, const Findings &findings);

} // namespace traceview

#endif
