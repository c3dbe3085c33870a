#include "live.h"

#include "text.h"

#include <algorithm>

namespace traceview {

namespace {

void raise(uint64_t &peak, uint64_t &peakTime, uint64_t value, uint64_t time) {
    if (value > peak) {
        peak = value;
        peakTime = time;
    }
}

void countMade(Live &live, const Allocation &allocation, uint64_t time) {
    for (Figures *figures : {&live.figures[static_cast<std::size_t>(allocation.kind)], &live.figures[kKinds]}) {
        ++figures->count;
        figures->bytes += allocation.actual;
        raise(figures->peakCount, figures->peakCountTime, figures->count, time);
        raise(figures->peakBytes, figures->peakBytesTime, figures->bytes, time);
    }
}

void countGone(Live &live, const Allocation &allocation) {
    for (Figures *figures : {&live.figures[static_cast<std::size_t>(allocation.kind)], &live.figures[kKinds]}) {
        --figures->count;
        figures->bytes -= allocation.actual;
    }
}

void countTurn(Live &live, Kind kind, uint64_t Figures::*turn) {
    ++(live.figures[static_cast<std::size_t>(kind)].*turn);
    ++(live.figures[kKinds].*turn);
}

void noteRow(Allocation &allocation, const Row &row, uint32_t site) {
    allocation.refCount = row.refCount;
    allocation.lastSite = site;
    allocation.lastRow = row.number;
    allocation.lastTime = row.time;
}

bool canBeAlive(const Row &row) { return row.allocId != 0 && static_cast<std::size_t>(row.kind) < kKinds; }

// A row that says where an allocation lies, which may be one that is known already.
Change followAlloc(Live &live, const Row &row, uint32_t site) {
    Change change;
    const auto [place, isNew] = live.allocations.try_emplace(row.allocId);
    Allocation &allocation = place->second;
    if (!isNew) {
        if (allocation.base == row.base && allocation.actual == row.actual && allocation.kind == row.kind) {
            allocation.dframe = row.dframe;
            allocation.data = row.data;
            allocation.requested = row.requested;
            return change;
        }
        change.gone = allocation;
        countGone(live, allocation);
    } else {
        allocation.id = row.allocId;
        allocation.allocSite = site;
        allocation.firstRow = row.number;
        allocation.firstTime = row.time;
        countTurn(live, row.kind, &Figures::made);
    }
    allocation.kind = row.kind;
    allocation.dframe = row.dframe;
    allocation.data = row.data;
    allocation.base = row.base;
    allocation.requested = row.requested;
    allocation.actual = row.actual;
    countMade(live, allocation, row.time);
    change.made = &allocation;
    return change;
}

Change remove(Live &live, std::unordered_map<uint64_t, Allocation>::iterator place) {
    Change change;
    change.gone = place->second;
    countGone(live, place->second);
    countTurn(live, place->second.kind, &Figures::released);
    live.allocations.erase(place);
    return change;
}

Change followEvent(Live &live, const Row &row) {
    if (row.result == "call") { // changes nothing; what it leads to follows
        return {};
    }
    if (row.result == "missing") {
        ++live.strangers;
        return {};
    }
    if (row.result == "trace_alloc_failed") {
        ++live.unkept;
        return {};
    }
    if (!canBeAlive(row)) {
        return {};
    }
    const uint32_t site = siteOf(live.sites, row.msgarea, row.line);
    Change change;
    if (row.action == "alloc") {
        change = followAlloc(live, row, site);
    }
    const auto place = live.allocations.find(row.allocId);
    if (place == live.allocations.end()) { // the row that made it was lost
        return change;
    }
    noteRow(place->second, row, site);
    if (row.result == "release") {
        return remove(live, place);
    }
    if (row.dframe != 0 || row.action.ends_with("_swapref_owner")) {
        place->second.dframe = row.dframe;
    }
    return change;
}

void followProblem(Live &live, const Row &row) {
    ++live.problems;
    const uint32_t site = siteOf(live.sites, row.msgarea, row.line);
    auto sort = live.problemSorts.find(row.action);
    if (sort == live.problemSorts.end()) {
        sort = live.problemSorts.emplace(row.action, ProblemSort{0, row.number, row.time, site}).first;
    }
    ++sort->second.count;
    // A heap's end finds what is left; that is no use of it, and no line of the program's.
    const bool byProgram = row.action != "phys_destroy_outstanding";
    if (const auto place = live.allocations.find(row.allocId); byProgram && place != live.allocations.end()) {
        noteRow(place->second, row, site);
    }
}

// An entry of a list; news only where the row that made it was lost.
Change followActive(Live &live, const Row &row) {
    if (!canBeAlive(row)) {
        return {};
    }
    Change change;
    if (!live.allocations.contains(row.allocId)) {
        const uint32_t site = siteOf(live.sites, row.msgarea, row.line);
        change = followAlloc(live, row, site);
        noteRow(live.allocations.at(row.allocId), row, site);
    }
    live.allocations.at(row.allocId).listedAt = live.listRow;
    return change;
}

} // namespace

uint32_t siteOf(Sites &sites, std::string_view msgarea, uint32_t line) {
    auto area = sites.places.find(msgarea);
    if (area != sites.places.end()) {
        if (const auto place = area->second.find(line); place != area->second.end()) {
            return place->second;
        }
    }
    sites.names.push_back({std::string(msgarea), line});
    const auto site = static_cast<uint32_t>(sites.names.size() - 1);
    if (area == sites.places.end()) {
        area = sites.places.try_emplace(sites.names.back().msgarea).first;
    }
    area->second.emplace(line, site);
    return site;
}

std::string siteText(const Sites &sites, uint32_t site) {
    const Sites::Name &name = sites.names.at(site);
    if (name.msgarea.empty() && name.line == 0) {
        return "(no call site)";
    }
    return printable(name.msgarea) + ":" + std::to_string(name.line);
}

Change liveFollow(Live &live, const Row &row) {
    switch (row.record) {
    case Record::event: return followEvent(live, row);
    case Record::problem: followProblem(live, row); return {};
    case Record::active: return followActive(live, row);
    case Record::summary: live.listRow = row.number; return {};
    case Record::meta: return {};
    }
    return {};
}

void liveSettle(Live &live, const Findings &findings) {
    if (findings.lastTrouble == 0 || !findings.closed || live.listRow <= findings.lastTrouble) {
        return;
    }
    for (auto place = live.allocations.begin(); place != live.allocations.end();) {
        const auto at = place++;
        if (at->second.listedAt != live.listRow) {
            remove(live, at);
        }
    }
}

const Figures &liveFigures(const Live &live, Kind kind) {
    return live.figures[std::min(static_cast<std::size_t>(kind), kKinds)];
}

std::vector<std::string> liveRemarks(const Live &live) {
    std::vector<std::string> remarks;
    if (live.strangers != 0) {
        remarks.push_back(countText(live.strangers) +
                          (live.strangers == 1 ? " event is of an allocation" : " events are of allocations") +
                          " made before the trace began, or gone already");
    }
    if (live.unkept != 0) {
        remarks.push_back(countText(live.unkept) + (live.unkept == 1 ? " allocation was" : " allocations were") +
                          " made that the trace had no memory to follow");
    }
    return remarks;
}

bool liveClean(const Live &live, const Findings &findings) {
    return readerWhole(findings) && live.allocations.empty() && live.problems == 0;
}

} // namespace traceview
