#include "outstanding.h"

#include <algorithm>
#include <map>
#include <utility>

namespace traceview {

namespace {

void noteLastSites(Outstanding &group) {
    std::map<uint32_t, std::size_t> counts;
    for (const Allocation *allocation : group.allocations) {
        ++counts[allocation->lastSite];
    }
    const auto most = std::max_element(counts.begin(), counts.end(),
                                       [](const auto &a, const auto &b) { return a.second < b.second; });
    group.lastSite = most->first;
    group.otherLastSites = counts.size() - 1;
}

} // namespace

std::vector<Outstanding> outstandingBySite(const Live &live) {
    std::map<std::pair<uint32_t, Kind>, Outstanding> bySite;
    const auto add = [&](const Allocation &allocation) {
        Outstanding &group = bySite[{allocation.allocSite, allocation.kind}];
        group.site = allocation.allocSite;
        group.kind = allocation.kind;
        ++group.count;
        group.bytes += allocation.actual;
        group.allocations.push_back(&allocation);
    };
    for (const auto &[id, allocation] : live.allocations) {
        add(allocation);
    }
    std::for_each(live.replaced.begin(), live.replaced.end(), add);
    std::vector<Outstanding> groups;
    for (auto &[key, group] : bySite) {
        std::sort(group.allocations.begin(), group.allocations.end(),
                  [](const Allocation *a, const Allocation *b) { return a->firstRow < b->firstRow; });
        noteLastSites(group);
        groups.push_back(std::move(group));
    }
    std::sort(groups.begin(), groups.end(), [](const Outstanding &a, const Outstanding &b) {
        return a.bytes != b.bytes ? a.bytes > b.bytes
                                  : a.allocations.front()->firstRow < b.allocations.front()->firstRow;
    });
    return groups;
}

} // namespace traceview
