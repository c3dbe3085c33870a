// Each allocation that nobody has released: by call site, those that hold most first; within one, the oldest first.
#include "commands.h"

#include "json.h"
#include "outstanding.h"
#include "text.h"

#include <algorithm>
#include <cstdio>

namespace traceview {

namespace {

bool isDigit(char byte) { return byte >= '0' && byte <= '9'; }

// True if the site holds the wanted text; one that ends in a line's number means the whole number.
bool wanted(const std::string &site, const std::string &text) {
    for (std::size_t at = site.find(text); at != std::string::npos; at = site.find(text, at + 1)) {
        const std::size_t end = at + text.size();
        if (text.empty() || end == site.size() || !isDigit(text.back()) || !isDigit(site[end])) {
            return true;
        }
    }
    return false;
}

std::vector<Column> columns() {
    return {{"id", Align::right},      {"kind", Align::left},         {"bytes", Align::right},
            {"refs", Align::right},    {"made at", Align::right},     {"dframe", Align::left},
            {"data", Align::left},     {"allocated by", Align::left}, {"last used by", Align::left},
            {"last row", Align::right}};
}

Cells cellsOf(const Live &live, const Allocation &allocation) {
    return {std::to_string(allocation.id),
            std::string(kKindNames[static_cast<std::size_t>(allocation.kind)]),
            countText(allocation.actual),
            std::to_string(allocation.refCount),
            timeText(allocation.firstTime),
            addressText(allocation.dframe),
            addressText(allocation.data),
            siteText(live.sites, allocation.allocSite),
            siteText(live.sites, allocation.lastSite),
            std::to_string(allocation.lastEvent)};
}

template <class Work> void forEach(const std::vector<Outstanding> &groups, const Work &work) {
    for (const Outstanding &group : groups) {
        std::for_each(group.allocations.begin(), group.allocations.end(), work);
    }
}

// There may be a million: no table is kept of them.
void printLeaks(const Live &live, const std::vector<Outstanding> &groups) {
    std::vector<Column> table = columns();
    forEach(groups, [&](const Allocation *allocation) { tableFit(table, cellsOf(live, *allocation)); });
    tableTitle(table);
    forEach(groups, [&](const Allocation *allocation) { tableRow(table, cellsOf(live, *allocation)); });
}

void printNone(const Live &live, const Options &options) {
    if (liveCount(live) == 0) {
        std::printf("Nothing is outstanding.\n");
    } else {
        std::printf("Nothing is outstanding of call sites with \"%s\"; of others, %s.\n", options.site.c_str(),
                    countText(liveCount(live)).c_str());
    }
}

void printJson(const Reader &reader, const Live &live, const std::vector<Outstanding> &groups) {
    std::printf("{\"about\": %s,\n\"sites\": [", jsonText(jsonFile(reader, live)).c_str());
    const char *before = "\n  ";
    for (const Outstanding &group : groups) {
        std::printf("%s%s", before, jsonText(jsonOutstanding(live, group)).c_str());
        before = ",\n  ";
    }
    std::printf("],\n\"allocations\": [");
    before = "\n  ";
    forEach(groups, [&](const Allocation *allocation) {
        std::printf("%s%s", before, jsonText(jsonAllocation(live, *allocation)).c_str());
        before = ",\n  ";
    });
    std::printf("]}\n");
}

} // namespace

int runLeaks(const Options &options) {
    Reader reader;
    Live live;
    if (!readTrace(reader, live, options)) {
        return kUnreadable;
    }
    std::vector<Outstanding> groups = outstandingBySite(live);
    std::erase_if(groups,
                  [&](const Outstanding &group) { return !wanted(siteText(live.sites, group.site), options.site); });
    if (options.json) {
        printJson(reader, live, groups);
    } else {
        if (groups.empty()) {
            printNone(live, options);
        } else {
            printLeaks(live, groups);
        }
        tellRemarks(reader, live);
    }
    return verdict(reader, !groups.empty() || !liveTellsAll(live, reader.findings));
}

} // namespace traceview
