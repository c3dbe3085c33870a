/** @file
 *  What programs read: the names are those of the trace's columns, and stay. */
#ifndef TRACEVIEW_JSON_H
#define TRACEVIEW_JSON_H

#include "live.h"
#include "outstanding.h"

#include <nlohmann/json.hpp>

#include <string>

namespace traceview {

using Json = nlohmann::ordered_json;

/** As text. Bytes that are no UTF-8 become the replacement character. */
std::string jsonText(const Json &json, int indent = -1);

Json jsonSite(const Sites &sites, uint32_t site);
Json jsonFigures(const Live &live);
Json jsonAllocation(const Live &live, const Allocation &allocation);
Json jsonOutstanding(const Live &live, const Outstanding &group);

/** All columns but msgarea and line, which are `site`. */
Json jsonRow(const Sites &sites, const Row &row, uint32_t site);

/** Whether the file tells all, and what is wrong with it. */
Json jsonFile(const Reader &reader, const Live &live);

} // namespace traceview

#endif
