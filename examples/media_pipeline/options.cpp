#include "options.h"

#include <charconv>
#include <cstring>

const char *const kHelp = R"(usage: media_pipeline [options] [file]

Decodes every stream of picture and sound in a media file into frames of the
library, hands the frames to several threads, and prints what came out.
Without a file it takes the clip that comes with the program.

  --verify      decode once more into the decoders' own buffers, and compare
  --threads N   threads of each decoder, 1 to 16 (2)
  --pool N      megabytes of the pool that the frames lie in, 1 to 60000 (524)
  --local       no pool: every frame goes to the local heap. Not with --pool.
  --trace FILE  the library's trace of every event goes there
  --leak N      lose N frames on purpose, 1 to 1000: previews of pictures that
                nobody lets go. The trace says whose they are.
  --quiet       print errors only
  --help        print this

Exit status: 0 if all went well, 1 if the file is damaged or a check failed,
2 if the command line is wrong.
)";

namespace {

constexpr int kMostThreads = 16;
constexpr int kMostMegabytes = 60000;
constexpr int kMostLeaks = 1000;
constexpr uint64_t kMegabyte = 1000000;

// The number behind an option, from 1 to `most`.
bool parseNumber(int &number, const char *text, int most, const std::string &option, std::string &error) {
    const char *const end = text != nullptr ? text + std::strlen(text) : nullptr;
    const auto [stop, problem] = std::from_chars(text, end, number);
    if (problem == std::errc() && stop == end && number >= 1 && number <= most) {
        return true;
    }
    error = option + " wants a number from 1 to " + std::to_string(most);
    return false;
}

} // namespace

bool parseOptions(Options &options, int count, char **arguments, std::string &error) {
    bool named = false;
    bool onlyFiles = false; // after "--"
    bool local = false;
    bool sized = false;
    for (int i = 1; i < count; ++i) {
        const std::string word = arguments[i];
        if (onlyFiles || word.empty() || word[0] != '-') {
            if (named) {
                error = "one file at a time, please: " + word;
                return false;
            }
            options.file = word;
            named = true;
        } else if (word == "--") {
            onlyFiles = true;
        } else if (word == "--verify") {
            options.verify = true;
        } else if (word == "--quiet") {
            options.quiet = true;
        } else if (word == "--help") {
            options.help = true;
        } else if (word == "--threads") {
            if (!parseNumber(options.threads, arguments[++i], kMostThreads, word, error)) { // null at the end
                return false;
            }
        } else if (word == "--pool") {
            int megabytes = 0;
            if (!parseNumber(megabytes, arguments[++i], kMostMegabytes, word, error)) {
                return false;
            }
            options.poolBytes = static_cast<uint64_t>(megabytes) * kMegabyte;
            sized = true;
        } else if (word == "--leak") {
            if (!parseNumber(options.leak, arguments[++i], kMostLeaks, word, error)) {
                return false;
            }
        } else if (word == "--trace") {
            if (arguments[++i] == nullptr || *arguments[i] == 0) {
                error = "--trace wants a file";
                return false;
            }
            options.trace = arguments[i];
        } else if (word == "--local") {
            local = true;
        } else {
            error = "unknown option " + word + "; --help lists them";
            return false;
        }
    }
    if (local && sized) {
        error = "--pool and --local contradict each other";
        return false;
    }
    if (local) {
        options.poolBytes = 0;
    }
    if (!named) {
        options.file = MEDIA_PIPELINE_CLIP;
    }
    return true;
}
