#include "reader.h"

#include "text.h"

#include "terminal/terminal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace traceview {

namespace {

constexpr std::size_t kChunk = 1 << 20;
// A row is some 150 bytes long, and as long as the texts of its program. What has no end by then is no row.
constexpr std::size_t kLongestRow = 16 << 20;

void showProgress(Reader &reader) {
    if (!progressDue(reader.progress)) {
        return;
    }
    constexpr std::size_t kBar = 30;
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - reader.started;
    const double rate = static_cast<double>(reader.bytes) / std::max(spent.count(), 1e-3);
    std::string bar;
    if (reader.size != 0) {
        const double share = std::min(1.0, static_cast<double>(reader.bytes) / static_cast<double>(reader.size));
        const auto done = static_cast<std::size_t>(share * kBar);
        bar.append("[").append(done, '=').append(kBar - done, ' ').append("] ");
        bar += std::to_string(static_cast<int>(share * 100)) + " %, ";
    }
    progressShow(reader.progress,
                 bar + bytesText(reader.bytes) + ", " + bytesText(static_cast<uint64_t>(rate)) + "/s");
}

// Reads on behind what waits. False at the end of the file, or if it can't be read.
bool fill(Reader &reader) {
    std::memmove(reader.buffer.data(), reader.buffer.data() + reader.at, reader.filled - reader.at);
    reader.filled -= reader.at;
    reader.at = 0;
    if (reader.buffer.size() < reader.filled + kChunk) {
        reader.buffer.resize(reader.filled + kChunk);
    }
    errno = 0;
    const std::size_t count = std::fread(reader.buffer.data() + reader.filled, 1, kChunk, reader.file.get());
    if (count == 0 && std::ferror(reader.file.get()) != 0) {
        reader.findings.failure = "reading failed: " + std::generic_category().message(errno);
    }
    reader.filled += count;
    reader.bytes += count;
    showProgress(reader);
    return count != 0;
}

struct Line {
    char *begin = nullptr;
    char *end = nullptr;  // its line feed is behind
    bool last = false;    // the file ends there, without a line feed
    bool tooLong = false; // its begin is gone
};

// The next line, without its end; false behind the last one.
bool nextLine(Reader &reader, Line &line) {
    line = {};
    for (std::size_t searched = 0;;) {
        char *const begin = reader.buffer.data() + reader.at;
        const std::size_t waiting = reader.filled - reader.at;
        auto *const feed = static_cast<char *>(std::memchr(begin + searched, '\n', waiting - searched));
        if (feed != nullptr) {
            line.begin = begin;
            line.end = feed;
            reader.at += static_cast<std::size_t>(feed - begin) + 1;
            break;
        }
        searched = waiting;
        if (waiting >= kLongestRow) {
            line.tooLong = true;
            reader.at = reader.filled;
            searched = 0;
        }
        if (!fill(reader)) {
            line.begin = reader.buffer.data();
            line.end = line.begin + reader.filled;
            line.last = true;
            reader.at = reader.filled;
            break;
        }
    }
    if (line.begin != line.end && line.end[-1] == '\r') { // an editor may have left it
        --line.end;
    }
    return !line.last || line.tooLong || line.begin != line.end;
}

void noteDamaged(Reader &reader, bool last) {
    Findings &findings = reader.findings;
    if (last) {
        findings.cutOff = findings.lastNumber;
        return;
    }
    ++reader.damagedSinceRow;
    if (++findings.gaps.damaged == 1) {
        findings.gaps.firstDamaged = findings.lastNumber;
    }
}

// A single number out of turn was damaged, and not the file behind it.
bool takeBackOddRow(Reader &reader, const Row &row) {
    const bool single = reader.oddRow != 0 && row.eventId == reader.idBefore + 2 && reader.damagedSinceRow == 0;
    if (single) {
        reader.findings.gaps = reader.gapsBefore;
        if (++reader.findings.gaps.damaged == 1) {
            reader.findings.gaps.firstDamaged = reader.oddRow;
        }
    }
    reader.oddRow = 0;
    return single;
}

// Rows are numbered without a gap as they are written.
void noteNumber(Reader &reader, Row &row) {
    Gaps &gaps = reader.findings.gaps;
    row.gap = reader.damagedSinceRow != 0;
    const bool takenBack = takeBackOddRow(reader, row);
    const uint64_t step = row.eventId - reader.lastEventId;
    if (!takenBack && (row.eventId <= reader.lastEventId || step - 1 > reader.damagedSinceRow)) {
        row.gap = true;
        reader.gapsBefore = gaps;
        reader.oddRow = row.number;
        reader.idBefore = reader.lastEventId;
        if (row.eventId > reader.lastEventId) {
            gaps.firstLost = gaps.lost == 0 ? row.number : gaps.firstLost;
            gaps.lost += step - 1 - reader.damagedSinceRow;
        } else if (gaps.disordered == 0) {
            gaps.disordered = row.number;
            gaps.disorderedId = row.eventId;
        }
    }
    row.mixed = gaps.disordered != 0;
    reader.lastEventId = row.eventId;
    reader.damagedSinceRow = 0;
}

// The column has 32 bits and starts anew every 49 days. Time doesn't go back; what does is damaged, or another
// program's.
void noteTime(Reader &reader, Row &row) {
    Findings &findings = reader.findings;
    if (findings.rows == 0) {
        findings.begin = row.timeMs;
    } else {
        reader.time += static_cast<int32_t>(row.timeMs - reader.lastTimeMs);
    }
    reader.lastTimeMs = row.timeMs;
    findings.duration = std::max(findings.duration, static_cast<uint64_t>(std::max<int64_t>(reader.time, 0)));
    row.time = findings.duration;
}

void noteEnd(Reader &reader) {
    progressErase(reader.progress);
    std::error_code error;
    const uint64_t now = reader.size != 0 ? std::filesystem::file_size(reader.path, error) : 0;
    if (!error && now > reader.size) {
        reader.findings.grown = now - reader.size;
    }
}

} // namespace

bool readerOpen(Reader &reader, const std::string &path) {
    reader.path = path;
    reader.buffer.resize(kChunk);
    reader.started = std::chrono::steady_clock::now();
    reader.progress.enabled = errorsGoToTerminal();
    std::error_code error;
    if (path == kStandardInput) {
        reader.file.reset(stdin);
    } else {
        if (std::filesystem::is_directory(path, error)) {
            reader.findings.failure = "is a directory";
            return false;
        }
        reader.file.reset(std::fopen(path.c_str(), "rb"));
        if (!reader.file) {
            reader.findings.failure = "can't be opened: " + std::generic_category().message(errno);
            return false;
        }
        const uint64_t size = std::filesystem::file_size(path, error);
        reader.size = error ? 0 : size;
    }
    Line line;
    if (!nextLine(reader, line)) {
        if (reader.findings.failure.empty()) {
            reader.findings.failure = "isn't a trace: it is empty";
        }
        return false;
    }
    std::string_view text(line.begin, static_cast<std::size_t>(line.end - line.begin));
    if (constexpr std::string_view kMark = "\xEF\xBB\xBF"; text.starts_with(kMark)) { // an editor's, of UTF-8
        text.remove_prefix(kMark.size());
    }
    if (text != kHeader) {
        constexpr std::size_t kShown = 60;
        reader.findings.failure = "isn't a trace: line 1 doesn't name a trace's columns, but begins with \"" +
                                  printable(text.substr(0, kShown)) + "\"";
        return false;
    }
    return true;
}

bool readerNext(Reader &reader, Row &row) {
    Findings &findings = reader.findings;
    Line line;
    while (nextLine(reader, line)) {
        if (line.begin == line.end && !line.tooLong) { // as an editor leaves it at the end
            continue;
        }
        row.number = ++findings.lastNumber;
        if (line.tooLong || !parseRow(line.begin, line.end, row)) {
            noteDamaged(reader, line.last);
            continue;
        }
        noteNumber(reader, row);
        noteTime(reader, row);
        ++findings.rows;
        findings.closed = row.record == Record::meta && row.action == "trace_close";
        if (findings.closed) {
            findings.closeReason = printable(row.detail);
        }
        return true;
    }
    noteEnd(reader);
    return false;
}

std::string readerName(const Reader &reader) {
    return reader.path == kStandardInput ? "standard input" : printable(reader.path);
}

bool readerWhole(const Findings &findings) {
    return findings.closed && findings.failure.empty() && findings.gaps.damaged == 0 && findings.gaps.lost == 0 &&
           findings.gaps.disordered == 0 && findings.cutOff == 0;
}

namespace {

// The header is the file's first line.
std::string rowText(uint64_t row) { return "row " + std::to_string(row) + " (line " + std::to_string(row + 1) + ")"; }

std::string countOf(uint64_t count, const char *one, const char *many) {
    return count == 1 ? std::string("one ") + one + " is" : countText(count) + " " + many + " are";
}

} // namespace

std::vector<std::string> readerRemarks(const Findings &findings) {
    std::vector<std::string> remarks;
    const Gaps &gaps = findings.gaps;
    if (!findings.failure.empty()) {
        remarks.push_back(findings.failure + ", behind " + rowText(findings.lastNumber));
    }
    if (findings.cutOff != 0) {
        remarks.push_back(rowText(findings.cutOff) + " is cut off: the file ends in the middle of it");
    }
    if (!findings.closed) {
        remarks.push_back("the trace has no end behind " + rowText(findings.lastNumber) +
                          (findings.grown != 0 ? ": it is still being written, " + bytesText(findings.grown) +
                                                     " were added while it was read"
                                               : ": its program is still running, or has ended without it"));
    }
    if (gaps.damaged != 0) {
        remarks.push_back(countOf(gaps.damaged, "row", "rows") + " damaged, the first is " +
                          rowText(gaps.firstDamaged));
    }
    if (gaps.lost != 0) {
        remarks.push_back(countOf(gaps.lost, "row", "rows") + " missing, first in front of " +
                          rowText(gaps.firstLost));
    }
    if (gaps.disordered != 0) {
        remarks.push_back(rowText(gaps.disordered) + " has the number " + std::to_string(gaps.disorderedId) +
                          ": the file was written by more than one program, or is damaged");
    }
    return remarks;
}

} // namespace traceview
