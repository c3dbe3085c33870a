/** @file
 *  Reads a trace row by row, in memory that doesn't grow with the file. A control character never stands inside a
 *  row, so each line feed ends one, whatever is wrong with it: behind a damaged row reading goes on. */
#ifndef TRACEVIEW_READER_H
#define TRACEVIEW_READER_H

#include "row.h"

#include "terminal/progress.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace traceview {

/** What a file lacks. Rows are told by their numbers; 0 is none. */
struct Gaps {
    uint64_t damaged = 0;      ///< lines that are no rows
    uint64_t firstDamaged = 0; ///< the first of them
    uint64_t lost = 0;         ///< numbers that no row has
    uint64_t firstLost = 0;    ///< row behind the first gap
    uint64_t disordered = 0;   ///< first row whose event_id isn't above that of the one before
    uint64_t disorderedId = 0; ///< its event_id
};

/** What is to be said about a file, apart from its rows. */
struct Findings {
    uint64_t rows = 0; ///< sound ones
    Gaps gaps;
    uint64_t cutOff = 0;     ///< last row, if the file ends inside it
    uint64_t grown = 0;      ///< bytes that were added while it was read
    bool closed = false;     ///< the trace has come to its end
    std::string closeReason; ///< the end's own word
    std::string failure;     ///< why reading ended early; empty if it didn't
    uint32_t begin = 0;      ///< time_ms of the first row
    uint64_t duration = 0;   ///< milliseconds from there to the latest row
    uint64_t lastNumber = 0; ///< of the last row, sound or not
};

struct CloseFile {
    void operator()(std::FILE *file) const { std::fclose(file); }
};

struct Reader {
    std::string path;
    std::unique_ptr<std::FILE, CloseFile> file;
    std::vector<char> buffer; ///< rows from `at` on wait in it, up to `filled`
    std::size_t at = 0;
    std::size_t filled = 0;
    uint64_t size = 0;  ///< of the file when it was opened; 0 if it has none, as a pipe
    uint64_t bytes = 0; ///< read so far
    uint64_t damagedSinceRow = 0;
    uint64_t lastEventId = 0;
    Gaps gapsBefore;     ///< as they were in front of the last row, if its event_id was out of turn
    uint64_t oddRow = 0; ///< that row, or 0
    uint64_t idBefore = 0;
    uint32_t lastTimeMs = 0;
    int64_t time = 0; ///< of the last row, from the first; may go back where the file is damaged
    Findings findings;
    Progress progress;
    std::chrono::steady_clock::time_point started{};
};

/** "frames.csv" as it may be printed, or "standard input". */
std::string readerName(const Reader &reader);

/** The name that stands for standard input. */
inline constexpr std::string_view kStandardInput = "-";

/** Opens the file and reads its first line. False if it can't be read or is no trace; findings.failure says why. */
bool readerOpen(Reader &reader, const std::string &path);

/** The next sound row; false at the end. */
bool readerNext(Reader &reader, Row &row);

/** True if the file tells all that its program did, up to the trace's own end. */
bool readerWhole(const Findings &findings);

/** What isn't as it should be, a sentence each. */
std::vector<std::string> readerRemarks(const Findings &findings);

} // namespace traceview

#endif
