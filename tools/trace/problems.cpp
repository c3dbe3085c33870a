// Each problem as it comes, with the line that made the allocation concerned.
#include "commands.h"

#include "json.h"
#include "text.h"

#include <cstdio>

namespace traceview {

namespace {

const std::vector<Column> kColumns = {
    {"row", Align::right, 8},       {"at", Align::right, 11},       {"problem", Align::left, 30},
    {"id", Align::right, 7},        {"call site", Align::left, 24}, {"allocated by", Align::left, 24},
    {"requested", Align::right, 9}, {"actual", Align::right, 9},    {"detail", Align::left}};

const Allocation *concerned(const Live &live, const Row &row) {
    const auto place = live.allocations.find(row.allocId);
    return place != live.allocations.end() ? &place->second : nullptr;
}

void printProblem(const Live &live, const Row &row, uint32_t site) {
    const Allocation *const allocation = concerned(live, row);
    tableRow(kColumns, {std::to_string(row.eventId), timeText(row.time), printable(row.action),
                        row.allocId != 0 ? std::to_string(row.allocId) : std::string(), siteText(live.sites, site),
                        allocation != nullptr ? siteText(live.sites, allocation->allocSite) : std::string(),
                        std::to_string(row.requested), std::to_string(row.actual), printable(row.detail)});
}

void printJson(const Live &live, const Row &row, uint32_t site) {
    const Allocation *const allocation = concerned(live, row);
    Json problem = jsonRow(live.sites, row, site);
    problem["alloc_site"] = allocation != nullptr ? jsonSite(live.sites, allocation->allocSite) : Json();
    std::printf("%s\n  %s", live.problems == 1 ? "" : ",", jsonText(problem).c_str());
}

} // namespace

int runProblems(const Options &options) {
    Reader reader;
    if (!openTrace(reader, options)) {
        return kUnreadable;
    }
    Live live;
    if (options.json) {
        std::printf("{\"problems\": [");
    }
    for (Row row; readerNext(reader, row);) {
        liveFollow(live, row);
        if (row.record != Record::problem) {
            continue;
        }
        const uint32_t site = siteOf(live.sites, row.msgarea, row.line);
        progressErase(reader.progress);
        if (options.json) {
            printJson(live, row, site);
            continue;
        }
        if (live.problems == 1) {
            tableTitle(kColumns);
        }
        printProblem(live, row, site);
    }
    if (options.json) {
        std::printf("%s], \"about\": %s}\n", live.problems == 0 ? "" : "\n",
                    jsonText(jsonFile(reader, live)).c_str());
    } else {
        if (live.problems == 0) {
            std::printf("No problems.\n");
        }
        tellRemarks(reader, live);
    }
    return verdict(reader, live.problems != 0 || !liveTellsAll(live, reader.findings));
}

} // namespace traceview
