#include "text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace traceview {

namespace {

template <class... Values> std::string formatted(const char *format, Values... values) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

// Bytes of the sequence that begins the text, and its character; 0 if it isn't UTF-8.
struct Sequence {
    std::size_t length = 0;
    uint32_t character = 0;
};

Sequence sequenceAt(std::string_view text) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) {
        return {1, lead};
    }
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (lead < 0xC0 || lead >= 0xF8 || text.size() < length) {
        return {};
    }
    uint32_t character = lead & (0x7FU >> length);
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0) != 0x80) {
            return {};
        }
        character = character << 6 | (byte(at) & 0x3F);
    }
    const bool valid = character >= kSmallest[length] && character < 0x110000 && (character & 0x1FF800) != 0xD800;
    return valid ? Sequence{length, character} : Sequence{};
}

// Controls, those of the second half as well, and the characters that turn the direction of a line.
bool movesTheTerminal(uint32_t character) {
    return character < ' ' || (character >= 0x7F && character < 0xA0) ||
           (character >= 0x200E && character <= 0x200F) || (character >= 0x2028 && character <= 0x202E) ||
           (character >= 0x2066 && character <= 0x2069);
}

std::size_t widthOf(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

} // namespace

std::string printable(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const Sequence sequence = sequenceAt(text);
        if (sequence.length == 0 || movesTheTerminal(sequence.character)) {
            shown += '?';
        } else {
            shown += text.substr(0, sequence.length);
        }
        text.remove_prefix(std::max<std::size_t>(sequence.length, 1));
    }
    return shown;
}

std::string bytesText(uint64_t bytes) {
    constexpr std::array units = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; value >= 1000 && unit + 1 < units.size(); ++unit) {
        value /= 1024;
    }
    if (unit == 0) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    return formatted(value < 9.995 ? "%.2f %s" : value < 99.95 ? "%.1f %s" : "%.0f %s", value, units[unit]);
}

std::string countText(uint64_t count) {
    std::string digits = std::to_string(count);
    for (std::size_t at = digits.size(); at > 3; at -= 3) {
        digits.insert(at - 3, 1, ',');
    }
    return digits;
}

std::string timeText(uint64_t ms) {
    constexpr uint64_t kSecond = 1000;
    constexpr uint64_t kMinute = 60 * kSecond;
    constexpr uint64_t kHour = 60 * kMinute;
    const auto rest = static_cast<double>(ms % kMinute) / kSecond;
    if (ms < kMinute) {
        return formatted("%.3f s", rest);
    }
    const auto minutes = static_cast<unsigned>(ms % kHour / kMinute);
    return formatted("%llu:%02u:%06.3f", static_cast<unsigned long long>(ms / kHour), minutes, rest);
}

std::string addressText(uint64_t address) {
    return address == 0 ? std::string() : formatted("%016llX", static_cast<unsigned long long>(address));
}

void tableFit(std::vector<Column> &columns, const Cells &cells) {
    for (std::size_t at = 0; at < columns.size(); ++at) {
        columns[at].width = std::max(columns[at].width, widthOf(cells[at]));
    }
}

void tableRow(const std::vector<Column> &columns, const Cells &cells) {
    std::string line;
    for (std::size_t at = 0; at < columns.size(); ++at) {
        const std::size_t width = std::max(columns[at].width, widthOf(columns[at].title));
        const std::string space(width - std::min(width, widthOf(cells[at])), ' ');
        line += at == 0 ? "" : "  ";
        line += columns[at].align == Align::right ? space + cells[at] : cells[at] + space;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::printf("%s\n", line.c_str());
}

void tableTitle(const std::vector<Column> &columns) {
    Cells titles;
    for (const Column &column : columns) {
        titles.push_back(column.title);
    }
    tableRow(columns, titles);
}

void tablePrint(std::vector<Column> columns, const std::vector<Cells> &rows) {
    for (const Cells &cells : rows) {
        tableFit(columns, cells);
    }
    tableTitle(columns);
    for (const Cells &cells : rows) {
        tableRow(columns, cells);
    }
}

} // namespace traceview
