/** @file
 *  What nobody has released, by the line of source that made it. */
#ifndef TRACEVIEW_OUTSTANDING_H
#define TRACEVIEW_OUTSTANDING_H

#include "live.h"

#include <vector>

namespace traceview {

/** The outstanding allocations of one kind that one site has made. */
struct Outstanding {
    uint32_t site = 0;
    Kind kind = Kind::none;
    uint64_t count = 0;
    uint64_t bytes = 0;
    std::vector<const Allocation *> allocations; ///< oldest first
    uint32_t lastSite = 0;                       ///< that most of them were last seen at
    std::size_t otherLastSites = 0;              ///< how many more there are
};

/** By bytes, most first; then by age. Holds as long as `live` doesn't change. */
std::vector<Outstanding> outstandingBySite(const Live &live);

} // namespace traceview

#endif
