// One screen: what the trace covers, how much there was, what went wrong, and what nobody has released.
#include "commands.h"

#include "json.h"
#include "outstanding.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <span>

namespace traceview {

namespace {

constexpr std::size_t kSitesShown = 10;
constexpr std::size_t kProblemsShown = 10;

using NamedSort = std::pair<std::string, ProblemSort>;

// Most frequent first.
std::vector<NamedSort> sortedProblems(const Live &live) {
    std::vector<NamedSort> sorts(live.problemSorts.begin(), live.problemSorts.end());
    std::stable_sort(sorts.begin(), sorts.end(),
                     [](const NamedSort &a, const NamedSort &b) { return a.second.count > b.second.count; });
    return sorts;
}

void printHead(const Reader &reader, const Live &live) {
    const Findings &findings = reader.findings;
    std::printf("%s: %s, %s rows, %s\n", readerName(reader).c_str(), bytesText(reader.bytes).c_str(),
                countText(findings.rows).c_str(), timeText(findings.duration).c_str());
    if (findings.closed) {
        std::printf("The trace ends with \"%s\".\n", findings.closeReason.c_str());
    }
    for (const std::string &remark : remarksOf(reader, live)) {
        std::printf("Note: %s.\n", remark.c_str());
    }
}

void printFigures(const Live &live) {
    std::vector<Cells> rows;
    for (std::size_t kind = 0; kind <= kKinds; ++kind) {
        const Figures &figures = live.figures[kind];
        const bool some = figures.peakCount != 0;
        rows.push_back({kind < kKinds ? std::string(kKindNames[kind]) : "all", countText(figures.made),
                        countText(figures.released), countText(figures.peakCount),
                        some ? timeText(figures.peakCountTime) : "", bytesText(figures.peakBytes),
                        some ? timeText(figures.peakBytesTime) : "", countText(figures.count),
                        bytesText(figures.bytes)});
    }
    std::printf("\n");
    tablePrint({{"", Align::left},
                {"made", Align::right},
                {"released", Align::right},
                {"most alive", Align::right},
                {"at", Align::right},
                {"most bytes", Align::right},
                {"at", Align::right},
                {"outstanding", Align::right},
                {"bytes", Align::right}},
               rows);
}

void printMore(std::size_t all, std::size_t shown, const char *command, const Reader &reader) {
    if (all > shown) {
        std::printf("... and %s more: brenvole-trace %s '%s'\n", countText(all - shown).c_str(), command,
                    printable(reader.path).c_str());
    }
}

void printProblems(const Reader &reader, const Live &live) {
    if (live.problems == 0) {
        std::printf("\nNo problems.\n");
        return;
    }
    std::printf("\n%s %s, by name:\n", countText(live.problems).c_str(), live.problems == 1 ? "problem" : "problems");
    const std::vector<NamedSort> sorts = sortedProblems(live);
    std::vector<Cells> rows;
    for (const auto &[action, sort] : std::span(sorts).first(std::min(sorts.size(), kProblemsShown))) {
        rows.push_back({countText(sort.count), printable(action), std::to_string(sort.firstEvent),
                        timeText(sort.firstTime), siteText(live.sites, sort.firstSite)});
    }
    tablePrint({{"count", Align::right},
                {"problem", Align::left},
                {"first row", Align::right},
                {"at", Align::right},
                {"first call site", Align::left}},
               rows);
    printMore(sorts.size(), kProblemsShown, "problems", reader);
}

void printOutstanding(const Reader &reader, const Live &live) {
    if (liveCount(live) == 0) {
        std::printf("\nNothing is outstanding.\n");
        return;
    }
    std::printf("\nOutstanding, by call site:\n");
    const std::vector<Outstanding> groups = outstandingBySite(live);
    std::vector<Cells> rows;
    for (const Outstanding &group : std::span(groups).first(std::min(groups.size(), kSitesShown))) {
        const Allocation &oldest = *group.allocations.front();
        std::string last = siteText(live.sites, group.lastSite);
        if (group.otherLastSites != 0) {
            last += " and " + countText(group.otherLastSites) + " more";
        }
        rows.push_back({bytesText(group.bytes), countText(group.count),
                        std::string(kKindNames[static_cast<std::size_t>(group.kind)]), std::to_string(oldest.id),
                        timeText(oldest.firstTime), siteText(live.sites, group.site), last});
    }
    tablePrint({{"bytes", Align::right},
                {"count", Align::right},
                {"kind", Align::left},
                {"oldest id", Align::right},
                {"made at", Align::right},
                {"allocated by", Align::left},
                {"last used by", Align::left}},
               rows);
    printMore(groups.size(), kSitesShown, "leaks", reader);
}

Json jsonSummary(const Reader &reader, const Live &live) {
    Json summary = {{"about", jsonFile(reader, live)}};
    summary["closed_by"] = reader.findings.closed ? Json(reader.findings.closeReason) : Json();
    summary["figures"] = jsonFigures(live);
    summary["problems"] = Json::array();
    for (const auto &[action, sort] : sortedProblems(live)) {
        summary["problems"].push_back({{"action", action},
                                       {"count", sort.count},
                                       {"first_event", sort.firstEvent},
                                       {"first_time", sort.firstTime},
                                       {"first_site", jsonSite(live.sites, sort.firstSite)}});
    }
    summary["outstanding"] = Json::array();
    for (const Outstanding &group : outstandingBySite(live)) {
        summary["outstanding"].push_back(jsonOutstanding(live, group));
    }
    return summary;
}

} // namespace

int runSummary(const Options &options) {
    Reader reader;
    Live live;
    if (!readTrace(reader, live, options)) {
        return kUnreadable;
    }
    if (options.json) {
        std::printf("%s\n", jsonText(jsonSummary(reader, live), 2).c_str());
    } else {
        printHead(reader, live);
        printFigures(live);
        printProblems(reader, live);
        printOutstanding(reader, live);
    }
    return verdict(reader, liveCount(live) != 0 || live.problems != 0 || !liveTellsAll(live, reader.findings));
}

} // namespace traceview
