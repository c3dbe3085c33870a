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
    uint64_t firstEvent = 0; ///< event_id of that row
    uint64_t lastEvent = 0;
    uint64_t firstTime = 0;
    uint64_t lastTime = 0;
    uint64_t listedAt = 0;  ///< row of the last list that it stood in
    bool siteLost = false;  ///< the row that made it is lost; a list will tell the site
    bool heapEnded = false; ///< with the block still out: its place may be given away again, under the same number
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
    uint64_t firstEvent = 0;
    uint64_t firstTime = 0;
    uint32_t firstSite = 0; ///< of a block that its heap's end found: where it was made
};

/** A list of what is alive, as it is read. */
struct ListState {
    uint64_t row = 0;    ///< its head; 0 if there was none
    uint64_t count = 0;  ///< entries that it has, by its head
    uint64_t listed = 0; ///< so far
    bool gap = false;    ///< rows are lost inside it
};

struct Live {
    std::unordered_map<uint64_t, Allocation> allocations; ///< by alloc_id
    std::vector<Allocation> replaced; ///< still out when their heap ended, and their numbers used again since
    Sites sites;
    std::array<Figures, kKinds + 1> figures; ///< by kind; the last of all kinds
    uint64_t problems = 0;
    std::map<std::string, ProblemSort, std::less<>> problemSorts; ///< by action
    uint64_t strangers = 0; ///< events of allocations that the trace has never seen being made
    uint64_t unkept = 0;    ///< allocations that it had no memory to follow
    uint64_t settled = 0;   ///< allocations whose release is lost
    bool gap = false;       ///< rows were lost since the last list that tells what is alive
    bool mixed = false;     ///< rows of several programs: no list holds for all
    ListState list;
};

/** What a row has changed: an allocation that is gone, one that is there, both if it has moved, or neither. Behind
 *  lost rows a list may tell of many that are gone. */
struct Change {
    std::optional<Allocation> gone;
    const Allocation *made = nullptr;
    std::vector<Allocation> settled;
};

/** Follows the row. Rows come in the file's order. */
Change liveFollow(Live &live, const Row &row);

/** How many allocations are outstanding. */
std::size_t liveCount(const Live &live);

/** What is to be said beyond readerRemarks. */
std::vector<std::string> liveRemarks(const Live &live);

/** True if the trace tells all that its program did with frames. */
bool liveTellsAll(const Live &live, const Findings &findings);

} // namespace traceview

#endif
