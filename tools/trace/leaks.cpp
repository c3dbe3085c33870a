// Each allocation that nobody has released: by call site, those that hold most first; within one, the oldest first.
#include "commands.h"

#include "json.h"
#include "outstanding.h"
#include "text.h"

#include <cstdio>

namespace traceview {

namespace {

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
            std::to_string(allocation.lastRow)};
}

void printLeaks(const Live &live, const std::vector<Outstanding> &groups) {
    std::vector<Cells> rows;
    for (const Outstanding &group : groups) {
        for (const Allocation *allocation : group.allocations) {
            rows.push_back(cellsOf(live, *allocation));
        }
    }
    if (rows.empty()) {
        std::printf("Nothing is outstanding.\n");
        return;
    }
    tablePrint({{"id", Align::right},
                {"kind", Align::left},
                {"bytes", Align::right},
                {"refs", Align::right},
                {"made at", Align::right},
                {"dframe", Align::left},
                {"data", Align::left},
                {"allocated by", Align::left},
                {"last used by", Align::left},
                {"last row", Align::right}},
               rows);
}

Json jsonLeaks(const Reader &reader, const Live &live, const std::vector<Outstanding> &groups) {
    Json leaks = {{"about", jsonFile(reader, live)}};
    leaks["sites"] = Json::array();
    leaks["allocations"] = Json::array();
    for (const Outstanding &group : groups) {
        leaks["sites"].push_back(jsonOutstanding(live, group));
        for (const Allocation *allocation : group.allocations) {
            leaks["allocations"].push_back(jsonAllocation(live, *allocation));
        }
    }
    return leaks;
}

} // namespace

int runLeaks(const Options &options) {
    Reader reader;
    if (!openTrace(reader, options)) {
        return kUnreadable;
    }
    Live live;
    for (Row row; readerNext(reader, row);) {
        liveFollow(live, row);
    }
    liveSettle(live, reader.findings);
    std::vector<Outstanding> groups = outstandingBySite(live);
    std::erase_if(groups, [&](const Outstanding &group) {
        return siteText(live.sites, group.site).find(options.site) == std::string::npos;
    });
    if (options.json) {
        std::printf("%s\n", jsonText(jsonLeaks(reader, live, groups), 2).c_str());
    } else {
        printLeaks(live, groups);
        tellRemarks(reader, live);
    }
    return verdict(reader, !groups.empty() || !readerWhole(reader.findings));
}

} // namespace traceview
