// All that happened to one allocation, in order.
#include "commands.h"

#include "json.h"
#include "text.h"

#include <algorithm>
#include <cstdio>

namespace traceview {

namespace {

const std::vector<Column> kColumns = {
    {"row", Align::right, 8},    {"at", Align::right, 11},  {"action", Align::left, 24},
    {"result", Align::left, 8},  {"refs", Align::right, 4}, {"call site", Align::left, 28},
    {"dframe", Align::left, 16}, {"data", Align::left, 16}, {"requested", Align::right, 9},
    {"actual", Align::right, 9}, {"detail", Align::left}};

void printEvent(const Sites &sites, const Row &row, uint32_t site) {
    tableRow(kColumns,
             {std::to_string(row.eventId), timeText(row.time), printable(row.action), printable(row.result),
              std::to_string(row.refCount), siteText(sites, site), addressText(row.dframe), addressText(row.data),
              std::to_string(row.requested), std::to_string(row.actual), printable(row.detail)});
}

} // namespace

int runLife(const Options &options) {
    Reader reader;
    if (!openTrace(reader, options)) {
        return kUnreadable;
    }
    Live live;
    uint64_t events = 0;
    uint64_t highest = 0;
    bool released = false;
    if (options.json) {
        std::printf("{\"alloc_id\": %s, \"events\": [", std::to_string(options.allocId).c_str());
    }
    for (Row row; readerNext(reader, row);) {
        highest = std::max(highest, row.allocId);
        liveFollow(live, row);
        if (row.allocId != options.allocId || (row.record == Record::active && events != 0)) {
            continue; // a list tells nothing new, but where all else is lost
        }
        released = row.record == Record::event && row.result == "release";
        const uint32_t site = siteOf(live.sites, row.msgarea, row.line);
        progressErase(reader.progress);
        if (options.json) {
            std::printf("%s\n  %s", events == 0 ? "" : ",", jsonText(jsonRow(live.sites, row, site)).c_str());
        } else {
            if (events == 0) {
                tableTitle(kColumns);
            }
            printEvent(live.sites, row, site);
        }
        ++events;
    }
    const bool outstanding = live.allocations.contains(options.allocId);
    if (options.json) {
        std::printf("%s], \"outstanding\": %s, \"about\": %s}\n", events == 0 ? "" : "\n",
                    outstanding ? "true" : "false", jsonText(jsonFile(reader, live)).c_str());
        return verdict(reader, events == 0);
    }
    if (events == 0) {
        std::printf("No allocation has the number %s; %s.\n", std::to_string(options.allocId).c_str(),
                    highest == 0 ? "none has one" : ("the highest is " + std::to_string(highest)).c_str());
    } else {
        std::printf("%s\n", outstanding ? "It is outstanding."
                            : released  ? "It was released."
                                        : "It was released by a row that is lost.");
    }
    tellRemarks(reader, live);
    return verdict(reader, events == 0);
}

} // namespace traceview
