/** @file
 *  A row of a trace, taken apart. The 17 columns and their forms are those that docs/trace.md tells. */
#ifndef TRACEVIEW_ROW_H
#define TRACEVIEW_ROW_H

#include <cstdint>
#include <string_view>

namespace traceview {

/** The first line of every trace. */
inline constexpr std::string_view kHeader =
    "record,event_id,time_ms,action,result,kind,alloc_id,msgarea,line,dframe,data,"
    "base,requested,actual,ref_count,active_count,detail";

enum class Record : uint8_t { meta, event, problem, summary, active };

/** What a row is about. The first three are what can be alive. */
enum class Kind : uint8_t { dframe, phys, local, session, none };
inline constexpr std::size_t kKinds = 3;
inline constexpr std::string_view kKindNames[] = {"dframe", "phys", "local", "session", ""};

/** Texts lie in the buffer that the row was read from, and hold until the next one is read. */
struct Row {
    uint64_t number = 0; ///< among the rows of the file, from 1; the event_id of an undamaged one
    uint64_t time = 0;   ///< milliseconds since the file's first row, past the 32 bits of the column
    bool gap = false;    ///< rows are lost or damaged between the one before and this one
    bool mixed = false;  ///< rows of several programs stand in the file
    Record record = Record::event;
    Kind kind = Kind::none;
    uint32_t timeMs = 0;
    uint32_t line = 0;
    int32_t refCount = 0;
    uint64_t eventId = 0;
    uint64_t allocId = 0;
    uint64_t dframe = 0; ///< 0 for an empty column, as the next two
    uint64_t data = 0;
    uint64_t base = 0;
    uint64_t requested = 0;
    uint64_t actual = 0;
    uint64_t activeCount = 0;
    std::string_view action;
    std::string_view result;
    std::string_view msgarea;
    std::string_view detail;
};

/** Takes a line apart, and takes the doubling off its quotes in place. False if it is no row of a trace; `row` is of
 *  no use then. */
bool parseRow(char *begin, char *end, Row &row);

} // namespace traceview

#endif
