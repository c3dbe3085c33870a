// Rows come back as they were written, and whatever is done to a file, what is left of it is read and the rest is
// told.
#include "trace_writer.h"

#include "trace/live.h"
#include "trace/text.h"

#include <random>
#include <vector>

using namespace traceview;

namespace {

std::mt19937_64 engine(20261123);

uint64_t below(uint64_t bound) { return engine() % bound; }

// Quotes, commas and what isn't text at all; long at times.
std::string hostileText() {
    constexpr std::string_view kBytes = "\"\",,<&'\\ab \xC3\xA9\xFF\x80\x01\t\n";
    std::string text;
    const uint64_t length = below(20) == 0 ? below(5000) : below(9);
    while (text.size() < length) { text += kBytes[below(kBytes.size())]; }
    return text;
}

std::string asWritten(std::string text) { // a control character is a blank
    for (char &byte : text) { byte = static_cast<unsigned char>(byte) < ' ' ? ' ' : byte; }
    return text;
}

std::vector<Row> readAll(Reader &reader, const std::string &path) {
    std::vector<Row> rows;
    if (readerOpen(reader, path)) {
        for (Row row; readerNext(reader, row);) { rows.push_back(row); }
    }
    return rows;
}

std::string mention(const Reader &reader) {
    std::string all = reader.findings.failure;
    for (const std::string &remark : readerRemarks(reader.findings)) { all += "|" + remark; }
    return all;
}

// A small sound trace: its first row, an allocation and its release with quotes in their texts, its last row.
std::string smallTrace() {
    Written written;
    Row &row = written.row;
    row.kind = Kind::session;
    row.detail = "a, file";
    written.add("meta", "trace_open", "ok");
    row.kind = Kind::dframe;
    row.allocId = 1;
    row.msgarea = "a\"b,c.cpp";
    row.line = 7;
    row.dframe = row.data = row.base = 0x1234;
    row.actual = 8484;
    row.refCount = 1;
    row.activeCount = 1;
    written.add("event", "alloc", "ok");
    row.refCount = 0;
    written.add("event", "dframe_free", "release");
    row.kind = Kind::session;
    row.allocId = 0;
    row.detail = "atexit";
    written.add("meta", "trace_close", "ok");
    return written.text;
}

} // namespace

TEST(TraceReader, RowsComeBackAsTheyWereWritten) {
    struct Texts {
        std::string action, result, msgarea, detail;
    };
    std::vector<Texts> texts(3000);
    std::vector<Row> written;
    std::string content(kHeader);
    for (Texts &text : texts) {
        text = {hostileText(), hostileText(), hostileText(), hostileText()};
        Row row;
        row.number = row.eventId = written.size() + 1;
        row.timeMs = static_cast<uint32_t>(0xFFFFF000 + 3 * written.size()); // past the 32 bits
        row.kind = static_cast<Kind>(below(5));
        row.line = static_cast<uint32_t>(engine());
        row.refCount = static_cast<int32_t>(engine());
        for (uint64_t *value :
             {&row.allocId, &row.dframe, &row.data, &row.base, &row.requested, &row.actual, &row.activeCount}) {
            *value = below(4) == 0 ? 0 : engine() >> below(64);
        }
        row.action = text.action, row.result = text.result, row.msgarea = text.msgarea, row.detail = text.detail;
        content += "\n" + rowText("event", row);
        written.push_back(row);
    }
    const TestFile file(content);
    Reader reader;
    ASSERT_TRUE(readerOpen(reader, file.path)) << reader.findings.failure;
    for (std::size_t at = 0; at < written.size(); ++at) {
        Row row;
        ASSERT_TRUE(readerNext(reader, row)) << at;
        EXPECT_EQ(rowText("event", row), rowText("event", written[at]));
        EXPECT_EQ(row.detail, asWritten(texts[at].detail));
        EXPECT_EQ(row.time, 3 * at);
        EXPECT_EQ(row.number, at + 1);
    }
    Row row;
    EXPECT_FALSE(readerNext(reader, row));
    EXPECT_EQ(reader.findings.gaps.damaged + reader.findings.gaps.lost + reader.findings.gaps.disordered +
                  reader.findings.cutOff,
              0u);
}

// Cut off at each of its bytes: all rows in front of the cut are read, and the cut is told.
TEST(TraceReader, CutOffAnywhere) {
    const std::string whole = smallTrace();
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        const std::string cut = whole.substr(0, length);
        const TestFile file(cut);
        Reader reader;
        const std::size_t rows = readAll(reader, file.path).size();
        const bool readable = length >= kHeader.size();
        const auto feeds = static_cast<std::size_t>(std::count(cut.begin(), cut.end(), '\n'));
        const bool lastWhole = length == whole.size() || (length > kHeader.size() && whole[length] == '\n');
        const bool inside = readable && feeds > 0 && !lastWhole && cut.back() != '\n';
        EXPECT_EQ(rows, feeds - (feeds > 0 && !lastWhole ? 1 : 0)) << cut;
        EXPECT_EQ(readerWhole(reader.findings), length == whole.size()) << cut;
        EXPECT_EQ(reader.findings.cutOff, inside ? feeds : 0) << cut;
        EXPECT_EQ(mention(reader).find("isn't a trace") == std::string::npos, readable) << cut;
        EXPECT_EQ(readable && mention(reader).find("has no end") != std::string::npos,
                  length != whole.size() && readable)
            << cut;
    }
}

// A byte is lost, changed or doubled: no other row suffers. A text's own byte may go unseen.
TEST(TraceReader, DamagedAnywhere) {
    const std::string whole = smallTrace();
    for (std::size_t at = kHeader.size() + 1; at < whole.size(); ++at) {
        for (const std::string &with : {std::string(), std::string("\""), std::string(","), std::string("\n"),
                                        std::string(1, '\0'), whole.substr(at, 1) + whole.substr(at, 1)}) {
            const TestFile file(whole.substr(0, at) + with + whole.substr(at + 1));
            Reader reader;
            const std::size_t rows = readAll(reader, file.path).size();
            EXPECT_GE(rows, whole[at] == '\n' ? 2u : 3u) << at << with;
            EXPECT_LE(rows, 4u);
            if (rows < 4) {
                EXPECT_FALSE(readerWhole(reader.findings)) << at << with;
                EXPECT_EQ(reader.findings.cutOff != 0 || reader.findings.gaps.damaged != 0, true) << mention(reader);
            }
        }
    }
}

TEST(TraceReader, LostAndForeignRowsAreTold) {
    const std::string whole = smallTrace();
    const auto without = [&](const std::string &part) {
        std::string text = whole;
        const std::size_t at = text.find(part);
        return text.erase(text.rfind('\n', at), text.find('\n', at) - text.rfind('\n', at));
    };
    const auto with = [&](const std::string &from, const std::string &to) {
        std::string text = whole;
        return text.replace(text.find(from), from.size(), to);
    };
    const struct {
        std::string content;
        const char *told;
    } cases[] = {
        {without("dframe_free"), "one row is missing, first in front of row 3"},
        {whole + whole.substr(kHeader.size()),
         "row 5 (line 6) has the number 1: the file was written by more than one program"},
        {std::string(kHeader) + "\nnonsense" + whole.substr(kHeader.size()),
         "one row is damaged, the first is row 1 (line 2)"},
        {whole.substr(whole.find('\n') + 1), "line 1 doesn't name a trace's columns"},
        {with("\"event\",2,", "\"event\",18446744073709551615,"),
         "one row is damaged, the first is row 2 "}, // only its number is
        {with("\"event\",3,", "\"event\",2,"), "one row is damaged, the first is row 3 "},
        {"", "isn't a trace: it is empty"},
        {std::string(kHeader) + "\n" + std::string(40 << 20, 'x') + "\n", "one row is damaged, the first is row 1 "},
    };
    for (const auto &[content, told] : cases) {
        const TestFile file(content);
        Reader reader;
        readAll(reader, file.path);
        EXPECT_NE(mention(reader).find(told), std::string::npos) << mention(reader);
        EXPECT_FALSE(readerWhole(reader.findings));
    }
    const TestFile edited("\xEF\xBB\xBF" + smallTrace() + "\r\n\n"); // by an editor
    Reader reader;
    EXPECT_EQ(readAll(reader, edited.path).size(), 4u);
    EXPECT_TRUE(readerWhole(reader.findings)) << mention(reader);

    const TestFile growing(whole.substr(0, whole.rfind('\n')));
    Reader early;
    ASSERT_TRUE(readerOpen(early, growing.path));
    std::ofstream(growing.path, std::ios::app | std::ios::binary) << "\n\"event\",4,";
    for (Row row; readerNext(early, row);) {}
    EXPECT_NE(mention(early).find("still being written, 11 bytes were added"), std::string::npos) << mention(early);
}

TEST(TraceText, ForPeople) {
    EXPECT_EQ(printable("a\x1B[31m\x7F\xC2\x9B\xE2\x80\xAE\xFF\xC0\xAF\xED\xA0\x80 r\xC3\xA9\xF0\x9F\x8E\xAC"),
              "a?[31m????????? r\xC3\xA9\xF0\x9F\x8E\xAC");
    EXPECT_EQ(bytesText(1), "1 byte");
    EXPECT_EQ(bytesText(999), "999 bytes");
    EXPECT_EQ(bytesText(1000), "0.98 KiB");
    EXPECT_EQ(bytesText(3110400), "2.97 MiB");
    EXPECT_EQ(bytesText(UINT64_MAX), "16.0 EiB");
    EXPECT_EQ(countText(1234567), "1,234,567");
    EXPECT_EQ(countText(999), "999");
    EXPECT_EQ(timeText(59999), "59.999 s");
    EXPECT_EQ(timeText(3723004), "1:02:03.004");
}
