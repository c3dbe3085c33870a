#include "reader.h"

#include "text.h"

#include "terminal/terminal.h"

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
    char *end = nullptr; // its line feed is behind
    bool last = false;   // the file ends there, without a line feed
};

// The next line, without its end; false behind the last one.
bool nextLine(Reader &reader, Line &line) {
    std::size_t searched = 0;
    for (;;) {
        char *const begin = reader.buffer.data() + reader.at;
        const std::size_t waiting = reader.filled - reader.at;
        auto *const feed = static_cast<char *>(std::memchr(begin + searched, '\n', waiting - searched));
        const bool endless = feed == nullptr && waiting >= kLongestRow;
        if (feed != nullptr || endless) {
            line = {begin, endless ? begin + waiting : feed, false};
            reader.at += static_cast<std::size_t>(line.end - begin) + (endless ? 0 : 1);
            break;
        }
        searched = waiting;
        if (!fill(reader)) {
            line = {reader.buffer.data(), reader.buffer.data() + reader.filled, true};
            reader.at = reader.filled;
            break;
        }
    }
    if (line.begin != line.end && line.end[-1] == '\r') { // an editor may have left it
        --line.end;
    }
    return !line.last || line.begin != line.end;
}

void noteDamaged(Reader &reader, bool last) {
    Findings &findings = reader.findings;
    if (last) {
        findings.cutOff = findings.lastNumber;
        return;
    }
    ++findings.damaged;
    findings.lastTrouble = findings.lastNumber;
    ++reader.damagedSinceRow;
    if (findings.firstDamaged == 0) {
        findings.firstDamaged = findings.lastNumber;
    }
}

// Rows are numbered without a gap as they are written.
void noteNumber(Reader &reader, const Row &row) {
    Findings &findings = reader.findings;
    const uint64_t step = row.eventId - findings.lastEventId;
    if (row.eventId <= findings.lastEventId) {
        if (findings.disordered == 0) {
            findings.disordered = row.number;
            findings.disorderedId = row.eventId;
        }
    } else if (step - 1 > reader.damagedSinceRow) {
        findings.lost += step - 1 - reader.damagedSinceRow;
        findings.lastTrouble = row.number;
        if (findings.firstLost == 0) {
            findings.firstLost = row.number;
        }
    }
    findings.lastEventId = row.eventId;
    reader.damagedSinceRow = 0;
}

// The column has 32 bits and starts anew every 49 days. A step back is no step.
void noteTime(Reader &reader, Row &row) {
    Findings &findings = reader.findings;
    if (findings.rows == 0) {
        findings.begin = row.timeMs;
    } else if (const auto step = static_cast<int32_t>(row.timeMs - reader.lastTimeMs); step > 0) {
        findings.duration += static_cast<uint32_t>(step);
    }
    reader.lastTimeMs = row.timeMs;
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
    const std::string_view text(line.begin, static_cast<std::size_t>(line.end - line.begin));
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
        row.number = ++findings.lastNumber;
        if (!parseRow(line.begin, line.end, row)) {
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

bool readerWhole(const Findings &findings) {
    return findings.closed && findings.failure.empty() && findings.damaged == 0 && findings.lost == 0 &&
           findings.disordered == 0 && findings.cutOff == 0;
}

std::vector<std::string> readerRemarks(const Findings &findings) {
    std::vector<std::string> remarks;
    const auto number = [](uint64_t value) { return std::to_string(value); };
    if (!findings.failure.empty()) {
        remarks.push_back(findings.failure + ", behind row " + number(findings.lastNumber));
    }
    if (findings.cutOff != 0) {
        remarks.push_back("row " + number(findings.cutOff) + " is cut off: the file ends in the middle of it");
    }
    if (!findings.closed) {
        remarks.push_back("the trace has no end behind row " + number(findings.lastNumber) +
                          (findings.grown != 0 ? ": it is still being written, " + bytesText(findings.grown) +
                                                     " were added while it was read"
                                               : ": its program is still running, or has ended without it"));
    }
    if (findings.damaged != 0) {
        remarks.push_back((findings.damaged == 1 ? "one line is" : number(findings.damaged) + " lines are") +
                          " damaged and left out, first row " + number(findings.firstDamaged));
    }
    if (findings.lost != 0) {
        remarks.push_back((findings.lost == 1 ? "one row is" : number(findings.lost) + " rows are") +
                          " missing, first in front of row " + number(findings.firstLost));
    }
    if (findings.disordered != 0) {
        remarks.push_back("row " + number(findings.disordered) + " has the number " + number(findings.disorderedId) +
                          ": more than one program has written to this file");
    }
    return remarks;
}

} // namespace traceview
