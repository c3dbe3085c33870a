#include "options.h"

#include <charconv>
#include <cstring>

const char *const kHelp = R"(usage: media_pipeline [options] [file]

Decodes every stream of picture and sound in a media file into frames of the
library, hands the frames to several threads, and prints what came out.
Without a file it takes the clip that comes with the program.

  --verify      decode once more into the decoders' own buffers, and compare
  --threads N   threads of each decoder, 1 to 16 (2)
  --quiet       print errors only
  --help        print this

Exit status: 0 if all went well, 1 if the file is damaged or a check failed,
2 if the command line is wrong.
)";

namespace {

constexpr int kMostThreads = 16;

bool parseThreads(int &threads, const char *text) {
    const char *const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, threads);
    return error == std::errc() && stop == end && threads >= 1 && threads <= kMostThreads;
}

} // namespace

bool parseOptions(Options &options, int count, char **arguments, std::string &error) {
    bool named = false;
    bool onlyFiles = false; // after "--"
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
            if (++i == count || !parseThreads(options.threads, arguments[i])) {
                error = "--threads wants a number from 1 to " + std::to_string(kMostThreads);
                return false;
            }
        } else {
            error = "unknown option " + word + "; --help lists them";
            return false;
        }
    }
    if (!named) {
        options.file = MEDIA_PIPELINE_CLIP;
    }
    return true;
}
