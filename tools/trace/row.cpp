#include "row.h"

#include <charconv>
#include <cstring>
#include <iterator>

namespace traceview {

namespace {

// Where the next column begins. Each step goes from the start of a column to that of the next, or says that the
// line isn't sound; past that, steps do nothing.
struct Columns {
    char *at;
    char *end;
    bool sound = true;
};

void stop(Columns &columns) { columns.sound = false; }

// Behind a column stands a comma, or the end of the line behind the last one.
void nextColumn(Columns &columns, char *behind) {
    if (behind != columns.end && *behind != ',') {
        stop(columns);
        return;
    }
    columns.at = behind + (behind != columns.end ? 1 : 0);
}

// The rest of a text in which a quote is doubled; `to` and `from` stand behind the first of a pair.
std::string_view withoutDoubling(Columns &columns, char *begin, char *to, char *from) {
    while (from != columns.end && *from == '"') {
        ++from; // the second of the pair
        auto *const quote = static_cast<char *>(std::memchr(from, '"', static_cast<std::size_t>(columns.end - from)));
        if (quote == nullptr) {
            stop(columns);
            return {};
        }
        const auto length = static_cast<std::size_t>(quote + 1 - from);
        std::memmove(to, from, length);
        to += length;
        from = quote + 1;
    }
    nextColumn(columns, from);
    return {begin, static_cast<std::size_t>(to - 1 - begin)};
}

std::string_view takeText(Columns &columns) {
    if (!columns.sound || columns.at == columns.end || *columns.at != '"') {
        stop(columns);
        return {};
    }
    char *const begin = columns.at + 1;
    auto *const quote = static_cast<char *>(std::memchr(begin, '"', static_cast<std::size_t>(columns.end - begin)));
    if (quote == nullptr) {
        stop(columns);
        return {};
    }
    if (quote + 1 != columns.end && quote[1] == '"') {
        return withoutDoubling(columns, begin, quote + 1, quote + 1);
    }
    nextColumn(columns, quote + 1);
    return {begin, static_cast<std::size_t>(quote - begin)};
}

template <class Number> Number takeNumber(Columns &columns, int radix = 10) {
    Number number{};
    if (columns.sound) {
        const auto [behind, error] = std::from_chars(columns.at, columns.end, number, radix);
        if (error != std::errc{}) {
            stop(columns);
        } else {
            nextColumn(columns, columns.at + (behind - columns.at));
        }
    }
    return number;
}

// Sixteen hexadecimal digits, or nothing.
uint64_t takePointer(Columns &columns) {
    if (columns.sound && columns.at != columns.end && *columns.at == ',') {
        ++columns.at;
        return 0;
    }
    return takeNumber<uint64_t>(columns, 16);
}

// One of a few words, by its place among them.
template <class Word, std::size_t count> Word takeWord(Columns &columns, const std::string_view (&words)[count]) {
    const std::string_view text = takeText(columns);
    for (std::size_t word = 0; word < count; ++word) {
        if (text == words[word]) {
            return static_cast<Word>(word);
        }
    }
    stop(columns);
    return {};
}

constexpr std::string_view kRecordNames[] = {"meta", "event", "problem", "summary", "active"};

} // namespace

bool parseRow(char *begin, char *end, Row &row) {
    Columns columns{begin, end};
    row.record = takeWord<Record>(columns, kRecordNames);
    row.eventId = takeNumber<uint64_t>(columns);
    row.timeMs = takeNumber<uint32_t>(columns);
    row.action = takeText(columns);
    row.result = takeText(columns);
    row.kind = takeWord<Kind>(columns, kKindNames);
    row.allocId = takeNumber<uint64_t>(columns);
    row.msgarea = takeText(columns);
    row.line = takeNumber<uint32_t>(columns);
    row.dframe = takePointer(columns);
    row.data = takePointer(columns);
    row.base = takePointer(columns);
    row.requested = takeNumber<uint64_t>(columns);
    row.actual = takeNumber<uint64_t>(columns);
    row.refCount = takeNumber<int32_t>(columns);
    row.activeCount = takeNumber<uint64_t>(columns);
    row.detail = takeText(columns);
    return columns.sound && columns.at == end && end[-1] == '"';
}

} // namespace traceview
