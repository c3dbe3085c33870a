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
    allocation.lastSite = site;
    allocation.lastEvent = row.eventId;
    allocation.lastTime = row.time;
}

bool canBeAlive(const Row &row) { return row.allocId != 0 && static_cast<std::size_t>(row.kind) < kKinds; }

void beginLife(Live &live, Allocation &allocation, const Row &row, uint32_t site) {
    allocation = {};
    allocation.id = row.allocId;
    allocation.allocSite = site;
    allocation.firstRow = row.number;
    allocation.firstEvent = row.eventId;
    allocation.firstTime = row.time;
    countTurn(live, row.kind, &Figures::made);
}

// A row that says where an allocation lies, which may be one that is known already.
Change followAlloc(Live &live, const Row &row, uint32_t site) {
    Change change;
    const auto [place, isNew] = live.allocations.try_emplace(row.allocId);
    Allocation &allocation = place->second;
    const bool stays = !isNew && !allocation.heapEnded && allocation.base == row.base &&
                       allocation.actual == row.actual && allocation.kind == row.kind;
    if (isNew) {
        beginLife(live, allocation, row, site);
    } else if (allocation.heapEnded) { // it stays lost
        change.gone = allocation;
        live.replaced.push_back(allocation);
        beginLife(live, allocation, row, site);
    } else if (!stays) {
        change.gone = allocation;
        countGone(live, allocation);
    }
    allocation.kind = row.kind;
    allocation.dframe = row.dframe;
    allocation.data = row.data;
    allocation.base = row.base;
    allocation.requested = row.requested;
    allocation.actual = row.actual;
    if (!stays) {
        countMade(live, allocation, row.time);
        change.made = &allocation;
    }
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
    auto place = live.allocations.find(row.allocId);
    if (place == live.allocations.end() && row.result == "release") {
        return change;
    }
    if (place == live.allocations.end()) { // the row that made it is lost
        change = followAlloc(live, row, siteOf(live.sites, {}, 0));
        place = live.allocations.find(row.allocId);
        place->second.siteLost = true;
    }
    if (row.result == "release") {
        return remove(live, place);
    }
    noteRow(place->second, row, site);
    place->second.refCount = row.refCount;
    if (row.result == "ok" && (row.dframe != 0 || row.action.ends_with("_swapref_owner"))) {
        place->second.dframe = row.dframe;
    }
    return change;
}

void countProblem(Live &live, const Row &row, uint32_t site) {
    ++live.problems;
    auto sort = live.problemSorts.find(row.action);
    if (sort == live.problemSorts.end()) {
        sort = live.problemSorts.emplace(row.action, ProblemSort{0, row.eventId, row.time, site}).first;
    }
    ++sort->second.count;
}

void followProblem(Live &live, const Row &row) {
    uint32_t site = siteOf(live.sites, row.msgarea, row.line);
    const auto place = live.allocations.find(row.allocId);
    const bool known = place != live.allocations.end();
    if (row.action == "phys_destroy_outstanding") { // no line of the program's, and no use of the block
        if (known && place->second.kind == Kind::phys && place->second.data == row.data) {
            place->second.heapEnded = true;
            site = place->second.allocSite;
        }
    } else if (known) {
        noteRow(place->second, row, site);
    }
    countProblem(live, row, site);
}

// Behind lost rows a whole list decides on what is alive.
void settle(Live &live, Change &change) {
    if (!live.gap || live.list.gap || live.mixed || live.list.listed != live.list.count) {
        return;
    }
    for (auto place = live.allocations.begin(); place != live.allocations.end();) {
        const auto at = place++;
        if (at->second.listedAt != live.list.row) {
            change.settled.push_back(*remove(live, at).gone);
        }
    }
    live.settled += change.settled.size();
    live.gap = false;
}

Change followSummary(Live &live, const Row &row) {
    Change change;
    live.list = {row.number, row.activeCount, 0, false};
    settle(live, change); // of nothing, maybe
    return change;
}

// An entry of a list; news only where the row that made it was lost.
Change followActive(Live &live, const Row &row) {
    Change change;
    if (!canBeAlive(row)) {
        return change;
    }
    const uint32_t site = siteOf(live.sites, row.msgarea, row.line);
    const bool known = live.allocations.contains(row.allocId);
    if (!known) {
        change = followAlloc(live, row, site);
    }
    Allocation &allocation = live.allocations.at(row.allocId);
    if (!known) {
        noteRow(allocation, row, site);
        allocation.refCount = row.refCount;
    }
    if (allocation.siteLost) {
        allocation.allocSite = site;
        allocation.siteLost = false;
    }
    allocation.listedAt = live.list.row;
    ++live.list.listed;
    settle(live, change);
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
    live.gap = live.gap || row.gap;
    live.mixed = row.mixed;
    live.list.gap = live.list.gap || row.gap;
    switch (row.record) {
    case Record::event: return followEvent(live, row);
    case Record::problem: followProblem(live, row); return {};
    case Record::active: return followActive(live, row);
    case Record::summary: return followSummary(live, row);
    case Record::meta: return {};
    }
    return {};
}

std::size_t liveCount(const Live &live) { return live.allocations.size() + live.replaced.size(); }

std::vector<std::string> liveRemarks(const Live &live) {
    std::vector<std::string> remarks;
    const auto say = [&](uint64_t count, const char *one, const char *many, const char *rest) {
        if (count != 0) {
            remarks.push_back(countText(count) + (count == 1 ? one : many) + rest);
        }
    };
    say(live.settled, " allocation was", " allocations were",
        " released by lost rows: figures in front of them may be too high");
    say(live.strangers, " event is of an allocation", " events are of allocations",
        " made before the trace began, or gone already");
    say(live.unkept, " allocation was", " allocations were", " made that the trace had no memory to follow");
    if (live.gap && !live.allocations.empty()) {
        remarks.emplace_back("no list of what is alive follows the lost rows: what is outstanding may be too much");
    }
    return remarks;
}

bool liveTellsAll(const Live &live, const Findings &findings) { return readerWhole(findings) && live.unkept == 0; }

} // namespace traceview
