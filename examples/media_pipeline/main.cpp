// Decodes a media file into frames of the library; see --help and the README beside the clip.
#include "libav_log.h"
#include "options.h"
#include "pipeline.h"
#include "report.h"
#include "terminal.h"
#include "verify.h"

#include "util/qxutil.h"

#include <cstdio>
#include <mutex>

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

// What the library has to say. In a good run that is nothing.
struct LibraryMessages {
    std::mutex lock;
    uint64_t count = 0;
    std::string first;
};

void takeLibraryMessage(uint32_t, const char *message, void *context) {
    LibraryMessages &messages = *static_cast<LibraryMessages *>(context);
    const std::lock_guard hold(messages.lock);
    if (messages.count++ == 0) {
        messages.first = message;
    }
}

void complain(const std::string &subject, const std::string &problem) {
    std::fprintf(stderr, "media_pipeline: %s%s%s\n", subject.c_str(), subject.empty() ? "" : ": ", problem.c_str());
}

// What is wrong with a result, each in a line.
std::vector<std::string> problemsOf(const PipelineResult &result, const LibraryMessages &messages) {
    std::vector<std::string> problems;
    const LedgerFigures &frames = result.frames;
    if (!result.error.empty()) {
        problems.push_back(result.error);
    }
    if (result.opened && countRecords(result, true) + countRecords(result, false) == 0) {
        problems.push_back("nothing in it could be decoded");
    }
    if (frames.refused != 0) {
        problems.push_back("no memory for " + std::to_string(frames.refused) + " frames");
    }
    if (frames.failures != 0) {
        problems.push_back(std::to_string(frames.failures) + " references were refused by the library");
    }
    if (frames.alive != 0) {
        problems.push_back(std::to_string(frames.alive) + " frames are still alive at the end");
    }
    if (messages.count != 0) {
        problems.push_back("the library reports " + std::to_string(messages.count) +
                           " times, first: " + messages.first);
    }
    return problems;
}

int run(const Options &options) {
    Progress progress{.enabled = !options.quiet && errorsGoToTerminal()};
    LibraryMessages messages;
    qxSetLogSink(takeLibraryMessage, &messages);
    const PipelineResult result = runPipeline(options.file, options.threads, progress);
    qxSetLogSink(nullptr, nullptr);

    if (result.opened && !options.quiet) {
        printReport(options.file, result, messages.count);
    }
    std::vector<std::string> problems = problemsOf(result, messages);
    if (options.verify && result.opened) {
        const std::string difference = verifyResult(options.file, options.threads, result, progress);
        if (!difference.empty()) {
            // What a decoder can't decode it may leave unwritten, and that part is different each time.
            const char *const excuse = result.error.empty() ? "" : " (the damage may be why)";
            problems.push_back("verify: " + difference + excuse);
        } else if (!options.quiet) {
            std::printf("%-26sall %llu pictures and all %llu blocks match the decoders' own%s\n", "verify",
                        static_cast<unsigned long long>(countRecords(result, true)),
                        static_cast<unsigned long long>(countRecords(result, false)),
                        result.frames.alive == 0 ? "; no frame is alive" : "");
        }
    }
    std::fflush(stdout);
    for (const std::string &problem : problems) {
        complain(options.file, problem);
    }
    return problems.empty() ? 0 : kFailure;
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
    libavLogCatch();
    try {
        return run(options);
    } catch (const std::exception &problem) { // want of memory, as a rule
        complain(options.file, problem.what());
        return kFailure;
    }
}
