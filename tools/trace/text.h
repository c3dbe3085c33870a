/** @file
 *  Texts and tables for people. */
#ifndef TRACEVIEW_TEXT_H
#define TRACEVIEW_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace traceview {

/** The text as valid UTF-8 without control characters, so that none in a trace reaches the terminal. What is
 *  neither becomes a question mark. */
std::string printable(std::string_view text);

std::string bytesText(uint64_t bytes);     ///< "1.5 MiB", of three digits or so
std::string countText(uint64_t count);     ///< "12,345"
std::string timeText(uint64_t ms);         ///< "0.031 s", "1:02:03.456"
std::string addressText(uint64_t address); ///< as in a trace; empty for 0

enum class Align : uint8_t { left, right };

struct Column {
    std::string title;
    Align align = Align::left;
    std::size_t width = 0; ///< at least; the title's own at least as well
};

using Cells = std::vector<std::string>;

/** Widens the columns to what a line of theirs holds. */
void tableFit(std::vector<Column> &columns, const Cells &cells);
/** Prints a line; a text that is wider than its column moves the rest of the line. */
void tableTitle(const std::vector<Column> &columns);
void tableRow(const std::vector<Column> &columns, const Cells &cells);

/** A whole table. */
void tablePrint(std::vector<Column> columns, const std::vector<Cells> &rows);

} // namespace traceview

#endif
