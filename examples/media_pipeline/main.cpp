// Decodes a media file into frames of the library; see --help and the README beside the clip.
#include "options.h"
#include "pipeline.h"
#include "platform.h"
#include "report.h"
#include "verify.h"

#include "terminal/terminal.h"
#include "util/qxutil.h"

#include <brenvole/dframe.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

// What the library has to say while frames come and go; in a good run that is nothing. One per process, as the
// library's log is. The making and the end of the pool are told as well, and don't count.
struct LibraryMessages {
    std::mutex lock;
    bool counting = false;
    uint64_t count = 0;
    uint64_t unexpected = 0;       // beyond those of a full pool, which the program gets along with
    std::array<char, 256> first{}; // of these; in place: no exception may pass through the library
};
LibraryMessages messages;

// A message may have a line feed at its end.
int lineLength(const char *message) { return static_cast<int>(std::strcspn(message, "\n")); }

void takeLibraryMessage(uint32_t, const char *message, void *) {
    const std::lock_guard hold(messages.lock);
    if (!messages.counting) {
        return;
    }
    ++messages.count;
    const bool full = std::strstr(message, "(0xE8108020)") != nullptr; // DFMEM_E_OUTOFMEMORY
    if (!full && messages.unexpected++ == 0) {
        std::snprintf(messages.first.data(), messages.first.size(), "%.*s", lineLength(message), message);
    }
}

void countMessages(bool counting) {
    const std::lock_guard hold(messages.lock);
    messages.counting = counting;
}

void complain(const std::string &subject, const std::string &problem) {
    std::fprintf(stderr, "media_pipeline: %s%s%s\n", subject.c_str(), subject.empty() ? "" : ": ", problem.c_str());
}

void add(std::string &problems, const std::string &problem) { problems += (problems.empty() ? "" : "; ") + problem; }

// What is wrong with a result, in one line.
std::string problemsOf(const PipelineResult &result) {
    const LedgerFigures &frames = result.frames;
    std::string problems = result.error;
    if (result.opened && countRecords(result, true) + countRecords(result, false) == 0) {
        add(problems, "nothing in it could be decoded");
    }
    if (result.edits.refused + result.edits.differing != 0) {
        add(problems, "pictures that could not be edited: " + std::to_string(result.edits.refused) +
                          ", whose edit is wrong: " + std::to_string(result.edits.differing));
    }
    if (frames.refused != 0) {
        add(problems, "frames that the library had no memory for: " + std::to_string(frames.refused));
    }
    if (frames.failures != 0) {
        add(problems, "references that the library refused: " + std::to_string(frames.failures));
    }
    if (frames.alive != result.edits.lost) {
        add(problems, "frames still alive at the end: " + std::to_string(frames.alive));
    }
    if (result.edits.lost != result.edits.toLose) {
        add(problems, "only so many frames to lose: " + std::to_string(result.edits.lost));
    }
    if (result.pool.used != 0 && result.edits.lost == 0) {
        add(problems, "bytes still used in the pool at the end: " + std::to_string(result.pool.used));
    }
    if (messages.unexpected != 0) {
        add(problems,
            "messages of the library: " + std::to_string(messages.unexpected) + ", first: " + messages.first.data());
    }
    return problems;
}

// The library decides at its first command whether it writes one.
bool openTrace(const std::string &file) {
    setVariable("QXBRENVOLE_TRACE", "1");
    setVariable("QXBRENVOLE_TRACE_FILE", file.c_str());
    DFrameMem(DFRAME_TOTAL, 0, 0, nullptr);
    std::error_code error;
    return std::filesystem::file_size(file, error) != 0 && !error;
}

int run(const Options &options, Progress &progress) {
    qxSetLogSink(takeLibraryMessage, nullptr); // for good: the library may log until the process ends
    if (!options.trace.empty() && !openTrace(options.trace)) {
        complain(options.trace, "the trace can't be written there");
        return kFailure;
    }
    const bool local = options.poolBytes == 0;
    if (!local && !framePoolOpen(options.poolBytes)) {
        complain("", "no memory for a pool, not even for a smaller one");
        return kFailure;
    }
    countMessages(true);
    const PipelineResult result = runPipeline(options.file, options.threads, local, options.leak, progress);
    countMessages(false);
    framePoolClose();

    if (result.opened && !options.quiet) {
        printReport(options.file, result, messages.count);
        if (!options.trace.empty()) {
            std::printf("\n%-26s%s; docs/trace.md tells how to read it\n", "trace", options.trace.c_str());
        }
    }
    std::string problems = problemsOf(result);
    if (options.verify && result.opened) {
        const std::string difference = verifyResult(options.file, options.threads, result, progress);
        if (!difference.empty()) {
            // What a decoder can't decode it may leave unwritten, and that part is different each time.
            const char *const excuse = result.error.empty() ? "" : " (the error may be why)";
            add(problems, "verify: " + difference + excuse);
        } else if (!options.quiet) {
            std::printf("%-26spictures: %llu, blocks: %llu, all as the decoders' own%s\n", "verify",
                        static_cast<unsigned long long>(countRecords(result, true)),
                        static_cast<unsigned long long>(countRecords(result, false)),
                        result.frames.alive == 0 ? "; no frame is alive" : "");
        }
    }
    std::fflush(stdout);
    if (!problems.empty()) {
        complain(options.file, problems);
        return kFailure;
    }
    return 0;
}

} // namespace

int main(int count, char **arguments) {
    Options options;
    std::string error;
    if (!parseOptions(options, count, arguments, error)) {
        complain("", error);
        return kUsage;
    }
    if (options.help) {
        std::fputs(kHelp, stdout);
        return 0;
    }
    Progress progress{.enabled = !options.quiet && errorsGoToTerminal()};
    try {
        return run(options, progress);
    } catch (const std::exception &problem) { // no memory, or no thread
        progressErase(progress);
        complain(options.file, problem.what());
        return kFailure;
    }
}
