// Writes traces as a program's library does.
#ifndef TESTS_TRACE_WRITER_H
#define TESTS_TRACE_WRITER_H

#include "trace/reader.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

inline std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (const char byte : text) {
        result += byte == '"' ? "\"\"" : std::string(1, static_cast<unsigned char>(byte) < ' ' ? ' ' : byte);
    }
    return result + '"';
}

inline std::string number(uint64_t value) { return std::to_string(value); }

inline std::string pointer(uint64_t address) {
    char text[17] = "";
    if (address != 0) { std::snprintf(text, sizeof text, "%016" PRIX64, address); }
    return text;
}

// A row without its line feed, of `record`'s word.
inline std::string rowText(const char *record, const traceview::Row &row) {
    return quoted(record) + "," + number(row.eventId) + "," + number(row.timeMs) + "," + quoted(row.action) + "," +
           quoted(row.result) + "," + quoted(traceview::kKindNames[static_cast<std::size_t>(row.kind)]) + "," +
           number(row.allocId) + "," + quoted(row.msgarea) + "," + number(row.line) + "," + pointer(row.dframe) +
           "," + pointer(row.data) + "," + pointer(row.base) + "," + number(row.requested) + "," +
           number(row.actual) + "," + std::to_string(row.refCount) + "," + number(row.activeCount) + "," +
           quoted(row.detail);
}

// A trace that is made row by row.
struct Written {
    traceview::Row row; // the next one
    std::string text{traceview::kHeader};

    void add(const char *record, const char *action, const char *result) {
        ++row.eventId;
        row.action = action, row.result = result;
        text += "\n" + rowText(record, row);
        row.timeMs += 10;
    }
};

// A file of this test's own, gone behind it.
struct TestFile {
    std::string path = (std::filesystem::temp_directory_path() /
                        ("brenvole_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) +
                         std::to_string(reinterpret_cast<uintptr_t>(this)) + ".csv"))
                           .string();
    TestFile() = default;
    explicit TestFile(const std::string &content) { write(content); }
    TestFile(const TestFile &) = delete;
    TestFile &operator=(const TestFile &) = delete;
    ~TestFile() { std::filesystem::remove(path); }
    void write(const std::string &content) const { std::ofstream(path, std::ios::binary) << content; }
    std::string read() const {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

#endif
