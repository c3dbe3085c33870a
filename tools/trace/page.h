/** @file
 *  The page of `report`, which the build makes of tools/page: what stands in front of its data, and behind. */
#ifndef TRACEVIEW_PAGE_H
#define TRACEVIEW_PAGE_H

#include <string_view>

namespace traceview {

extern const std::string_view kPageBegin;
extern const std::string_view kPageEnd;

} // namespace traceview

#endif
