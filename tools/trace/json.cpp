#include "json.h"

#include "commands.h"
#include "text.h"

namespace traceview {

std::string jsonText(const Json &json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json jsonSite(const Sites &sites, uint32_t site) {
    const Sites::Name &name = sites.names.at(site);
    return {{"msgarea", name.msgarea}, {"line", name.line}};
}

Json jsonFigures(const Live &live) {
    Json all = Json::object();
    for (std::size_t kind = 0; kind <= kKinds; ++kind) {
        const Figures &figures = live.figures[kind];
        all[kind < kKinds ? std::string(kKindNames[kind]) : "all"] = {
            {"made", figures.made},
            {"released", figures.released},
            {"count", figures.count},
            {"bytes", figures.bytes},
            {"peak_count", figures.peakCount},
            {"peak_count_time", figures.peakCountTime},
            {"peak_bytes", figures.peakBytes},
            {"peak_bytes_time", figures.peakBytesTime},
        };
    }
    return all;
}

Json jsonAllocation(const Live &live, const Allocation &allocation) {
    return {
        {"alloc_id", allocation.id},
        {"kind", kKindNames[static_cast<std::size_t>(allocation.kind)]},
        {"dframe", addressText(allocation.dframe)},
        {"data", addressText(allocation.data)},
        {"base", addressText(allocation.base)},
        {"requested", allocation.requested},
        {"actual", allocation.actual},
        {"ref_count", allocation.refCount},
        {"alloc_site", jsonSite(live.sites, allocation.allocSite)},
        {"last_site", jsonSite(live.sites, allocation.lastSite)},
        {"alloc_event", allocation.firstEvent},
        {"last_event", allocation.lastEvent},
        {"alloc_time", allocation.firstTime},
        {"last_time", allocation.lastTime},
    };
}

Json jsonOutstanding(const Live &live, const Outstanding &group) {
    return {
        {"alloc_site", jsonSite(live.sites, group.site)},
        {"kind", kKindNames[static_cast<std::size_t>(group.kind)]},
        {"count", group.count},
        {"bytes", group.bytes},
        {"oldest", jsonAllocation(live, *group.allocations.front())},
        {"last_site", jsonSite(live.sites, group.lastSite)},
        {"other_last_sites", group.otherLastSites},
    };
}

Json jsonRow(const Sites &sites, const Row &row, uint32_t site) {
    return {
        {"event_id", row.eventId},
        {"time", row.time},
        {"action", row.action},
        {"result", row.result},
        {"kind", kKindNames[static_cast<std::size_t>(row.kind)]},
        {"alloc_id", row.allocId},
        {"site", jsonSite(sites, site)},
        {"dframe", addressText(row.dframe)},
        {"data", addressText(row.data)},
        {"base", addressText(row.base)},
        {"requested", row.requested},
        {"actual", row.actual},
        {"ref_count", row.refCount},
        {"active_count", row.activeCount},
        {"detail", row.detail},
    };
}

Json jsonFile(const Reader &reader, const Live &live) {
    const Findings &findings = reader.findings;
    return {
        {"file", reader.path},     {"whole", liveTellsAll(live, findings)}, {"remarks", remarksOf(reader, live)},
        {"events", findings.rows}, {"duration", findings.duration},
    };
}

} // namespace traceview
