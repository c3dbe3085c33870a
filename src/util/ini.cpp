#include "ini.h"

#include <charconv>

namespace {

constexpr std::string_view kBlanks = " \t\r\v\f";
constexpr unsigned kLinesNamed = 3; // of the broken lines in one message; a binary file has thousands

std::string_view trim(std::string_view text) {
    const std::size_t start = text.find_first_not_of(kBlanks);
    if (start == std::string_view::npos) {
        return {};
    }
    return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

bool isComment(std::string_view text) { return text.empty() || text.front() == ';' || text.front() == '#'; }

// Takes the quotes off, and a comment behind them. Without quotes a text goes to the end of its line.
std::string_view unquote(std::string_view text) {
    const std::size_t end = text.starts_with('"') ? text.find('"', 1) : std::string_view::npos;
    return end != std::string_view::npos && isComment(trim(text.substr(end + 1))) ? text.substr(1, end - 1) : text;
}

void appendLower(std::string &to, std::string_view text) {
    for (char c : text) {
        to += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    }
}

struct Parser {
    IniEntries entries;
    std::string section;
    bool inSection = false; // entries behind a broken section line belong to no section that we could name

    // False for a line that can't be understood.
    bool take(std::string_view line) {
        if (isComment(line)) {
            return true;
        }
        if (line.find('\0') != std::string_view::npos) {
            return false;
        }
        if (line.front() == '[') {
            const std::size_t end = line.find(']');
            inSection = end != std::string_view::npos && isComment(trim(line.substr(end + 1)));
            section = inSection ? trim(line.substr(1, end - 1)) : std::string_view();
            return inSection;
        }
        const std::size_t equals = line.find('=');
        const std::string_view key = trim(line.substr(0, equals));
        if (equals == std::string_view::npos || key.empty() || !inSection) {
            return false;
        }
        entries[iniName(section, key)] = unquote(trim(line.substr(equals + 1)));
        return true;
    }
};

} // namespace

std::string iniName(std::string_view section, std::string_view key) {
    std::string name;
    appendLower(name, section);
    name += '\n'; // can stand in neither part
    appendLower(name, key);
    return name;
}

IniEntries iniParse(std::string_view content, const std::string &path, std::string &complaints) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (content.starts_with(kByteOrderMark)) {
        content.remove_prefix(kByteOrderMark.size());
    }
    Parser parser;
    unsigned broken = 0;
    std::string numbers;
    for (unsigned number = 1; !content.empty(); ++number) {
        const std::size_t end = std::min(content.find('\n'), content.size());
        if (!parser.take(trim(content.substr(0, end))) && broken++ < kLinesNamed) {
            numbers += (broken > 1 ? ", " : " ") + std::to_string(number);
        }
        content.remove_prefix(std::min(end + 1, content.size()));
    }
    if (broken != 0) {
        complaints += path + ": not understood and skipped: line" + (broken > 1 ? "s" : "") + numbers +
                      (broken > kLinesNamed ? " and others" : "");
    }
    return std::move(parser.entries);
}

bool iniNumber(std::string_view text, uint32_t &value) {
    text = trim(text.substr(0, text.find_first_of(";#")));
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    uint32_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) {
        return false;
    }
    value = number;
    return true;
}
