// The page that shows a trace: what the charts need, collected in one reading, and put into the page of tools/page.
#include "commands.h"

#include "json.h"
#include "outstanding.h"
#include "page_file.h"
#include "pool_map.h"
#include "steps.h"
#include "text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace traceview {

namespace {

constexpr std::size_t kSitesShown = 1000;
constexpr std::size_t kExamples = 5;

// Call sites by their place in the page's list of them.
struct PageSites {
    std::unordered_map<uint32_t, std::size_t> places;
    Json names = Json::array();
};

std::size_t pageSite(PageSites &page, const Sites &sites, uint32_t site) {
    const auto [place, isNew] = page.places.try_emplace(site, page.places.size());
    if (isNew) {
        page.names.push_back(siteText(sites, site));
    }
    return place->second;
}

std::string base64(const std::vector<uint8_t> &bytes) {
    constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const auto byte = [&](std::size_t next) { return at + next < bytes.size() ? uint32_t{bytes[at + next]} : 0; };
        const uint32_t three = byte(0) << 16 | byte(1) << 8 | byte(2);
        for (unsigned digit = 0; digit < 4; ++digit) {
            text += at + digit <= bytes.size() ? kDigits[three >> (18 - 6 * digit) & 0x3F] : '=';
        }
    }
    return text;
}

Json totalsOf(const Live &live) {
    Json totals = Json::array();
    for (std::size_t kind = 0; kind <= kKinds; ++kind) {
        const Figures &figures = live.figures[kind];
        totals.push_back({{"kind", kind < kKinds ? kKindNames[kind] : "all"},
                          {"made", figures.made},
                          {"released", figures.released},
                          {"count", figures.count},
                          {"bytes", figures.bytes},
                          {"peakCount", figures.peakCount},
                          {"peakCountTime", figures.peakCountTime},
                          {"peakBytes", figures.peakBytes},
                          {"peakBytesTime", figures.peakBytesTime}});
    }
    return totals;
}

Json spansOf(const std::vector<LiveStep> &steps, std::array<Span, kKinds> LiveStep::*spans) {
    Json kinds = Json::array();
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        Json low = Json::array();
        Json high = Json::array();
        Json last = Json::array();
        for (const LiveStep &step : steps) {
            low.push_back((step.*spans)[kind].low);
            high.push_back((step.*spans)[kind].high);
            last.push_back((step.*spans)[kind].last);
        }
        kinds.push_back({{"low", low}, {"high", high}, {"last", last}});
    }
    return kinds;
}

Json stepsOf(const Steps<LiveStep> &course) {
    Json time = Json::array();
    for (const LiveStep &step : course.steps) {
        time.push_back(step.time);
    }
    return {{"events", course.rows},
            {"time", time},
            {"bytes", spansOf(course.steps, &LiveStep::bytes)},
            {"count", spansOf(course.steps, &LiveStep::count)}};
}

Json problemsOf(const Course &course, const Live &live) {
    Json points = Json::array();
    for (const ProblemStep &step : course.problems.steps) {
        for (const auto &[action, point] : step.points) {
            points.push_back({{"event", point.row},
                              {"time", point.time},
                              {"action", action},
                              {"count", point.count},
                              {"site", siteText(live.sites, point.site)},
                              {"detail", printable(point.detail)},
                              {"id", point.allocId}});
        }
    }
    Json actions = Json::array();
    for (const std::string &action : course.actions) {
        actions.push_back(printable(action));
    }
    return {{"total", live.problems}, {"actions", actions}, {"points", points}};
}

Json sitesOf(const Live &live) {
    const std::vector<Outstanding> groups = outstandingBySite(live);
    Json rows = Json::array();
    for (const Outstanding &group : groups) {
        if (rows.size() == kSitesShown) {
            break;
        }
        const Allocation &oldest = *group.allocations.front();
        Json example = Json::array();
        for (std::size_t at = 0; at < std::min(kExamples, group.allocations.size()); ++at) {
            example.push_back(group.allocations[at]->id);
        }
        rows.push_back({{"site", siteText(live.sites, group.site)},
                        {"kind", kKindNames[static_cast<std::size_t>(group.kind)]},
                        {"count", group.count},
                        {"bytes", group.bytes},
                        {"oldestId", oldest.id},
                        {"oldestEvent", oldest.firstRow},
                        {"oldestTime", oldest.firstTime},
                        {"lastSite", siteText(live.sites, group.lastSite)},
                        {"otherLastSites", group.otherLastSites},
                        {"example", example}});
    }
    return {{"total", groups.size()}, {"rows", rows}};
}

// The share of each cell that was in use, column after column, on the average over `lengths`.
std::vector<uint8_t> fillOf(const MapRegion &region, std::vector<double> MapColumn::*use,
                            const std::vector<uint64_t> &lengths) {
    constexpr double kFull = 255;
    const auto cellBytes = std::ldexp(1.0, static_cast<int>(region.shift));
    std::vector<uint8_t> fill;
    for (std::size_t at = 0; at < region.columns.steps.size(); ++at) {
        const std::vector<double> &figures = region.columns.steps[at].*use;
        const double whole = cellBytes * static_cast<double>(std::max<uint64_t>(lengths[at], 1));
        for (std::size_t cell = 0; cell < region.cells.size(); ++cell) {
            const double share = cell < figures.size() ? figures[cell] / whole : 0;
            fill.push_back(static_cast<uint8_t>(std::ceil(kFull * std::clamp(share, 0.0, 1.0))));
        }
    }
    return fill;
}

Json blocksOf(const MapRegion &region, const Live &live, PageSites &sites) {
    Json blocks = {{"id", Json::array()},       {"from", Json::array()},   {"to", Json::array()},
                   {"fromTime", Json::array()}, {"toTime", Json::array()}, {"offset", Json::array()},
                   {"bytes", Json::array()},    {"site", Json::array()}};
    for (const MapBlock &block : region.blocks) {
        blocks["id"].push_back(block.id);
        blocks["from"].push_back(block.fromRow);
        blocks["to"].push_back(block.toRow);
        blocks["fromTime"].push_back(block.fromTime);
        blocks["toTime"].push_back(block.toTime);
        blocks["offset"].push_back(block.base - region.low);
        blocks["bytes"].push_back(block.bytes);
        blocks["site"].push_back(pageSite(sites, live.sites, block.site));
    }
    return blocks;
}

Json poolOf(const PoolMap &map, const MapRegion &region, const Live &live, PageSites &sites) {
    Json columnTime = Json::array();
    std::vector<uint64_t> rows;
    std::vector<uint64_t> times;
    uint64_t before = 0;
    for (const MapColumn &column : region.columns.steps) {
        columnTime.push_back(column.time);
        rows.push_back(std::min(region.columns.rows, map.lastRow - rows.size() * region.columns.rows));
        times.push_back(column.time - before);
        before = column.time;
    }
    return {{"low", addressText(region.low)},
            {"high", addressText(region.high)},
            {"cellBytes", uint64_t{1} << region.shift},
            {"cells", region.cells.size()},
            {"cellBase", addressText(region.firstCell << region.shift)},
            {"stepEvents", region.columns.rows},
            {"columns", region.columns.steps.size()},
            {"columnTime", columnTime},
            {"fill", base64(fillOf(region, &MapColumn::byRow, rows))},
            {"fillTime", base64(fillOf(region, &MapColumn::byTime, times))},
            {"blocksTotal", region.stays},
            {"blocks", blocksOf(region, live, sites)}};
}

Json dataOf(const Reader &reader, const Live &live, const Course &course, const PoolMap &map) {
    const Findings &findings = reader.findings;
    std::vector<std::string> remarks = remarksOf(reader, live);
    if (map.leftOut != 0) {
        remarks.push_back(countText(map.leftOut) + " blocks lie in more regions than the map shows");
    }
    PageSites sites;
    Json pools = Json::array();
    for (const MapRegion &region : map.regions) {
        pools.push_back(poolOf(map, region, live, sites));
    }
    return {{"tool", "brenvole-trace " BRENVOLE_VERSION},
            {"file", readerName(reader)},
            {"bytesOfFile", reader.bytes},
            {"remarks", remarks},
            {"duration", findings.duration},
            {"events", findings.lastNumber},
            {"begin", findings.begin},
            {"kinds", {kKindNames[0], kKindNames[1], kKindNames[2]}},
            {"totals", totalsOf(live)},
            {"steps", stepsOf(course.live)},
            {"problems", problemsOf(course, live)},
            {"sites", sitesOf(live)},
            {"callSites", sites.names},
            {"pools", pools}};
}

} // namespace

int runReport(const Options &options) {
    Reader reader;
    PageFile page;
    if (!openTrace(reader, options) || !pageOpen(page, options)) {
        return kUnreadable;
    }
    Live live;
    Course course;
    PoolMap map;
    for (Row row; readerNext(reader, row);) {
        const Change change = liveFollow(live, row);
        courseNote(course, live, row);
        poolMapNote(map, row, change);
    }
    poolMapFinish(map);
    if (!pageFinish(page, jsonText(dataOf(reader, live, course, map)))) {
        return kUnreadable;
    }
    tellRemarks(reader, live);
    if (!page.toStandardOutput) {
        std::printf("%s\n", printable(options.output).c_str());
    }
    return verdict(reader, false);
}

} // namespace traceview
