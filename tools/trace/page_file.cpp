#include "page_file.h"

#include "page.h"
#include "text.h"

#include <cerrno>
#include <cstdio>
#include <random>
#include <system_error>

namespace traceview {

namespace {

namespace fs = std::filesystem;

bool cannot(const fs::path &place, const std::string &why) {
    std::fprintf(stderr, "brenvole-trace: %s can't be written: %s\n", printable(place.string()).c_str(), why.c_str());
    return false;
}

std::string lastError() { return std::generic_category().message(errno); }

// No text of a trace may end the element that it stands in.
std::string withoutMarkup(const std::string &json) {
    std::string text;
    text.reserve(json.size());
    for (const char byte : json) {
        if (byte == '<') {
            text += "\\u003c";
        } else {
            text += byte;
        }
    }
    return text;
}

} // namespace

bool pageOpen(PageFile &page, const Options &options) {
    page.toStandardOutput = options.output == kStandardOutput;
    if (page.toStandardOutput) {
        return true;
    }
    std::error_code error;
    page.place = options.output;
    if (fs::equivalent(options.output, options.file, error)) {
        return cannot(page.place, "it is the trace");
    }
    if (fs::is_directory(page.place, error)) {
        return cannot(page.place, "it is a directory");
    }
    const bool inPlace = fs::exists(page.place, error) && !fs::is_regular_file(page.place, error);
    if (!inPlace) {
        const fs::path behindLinks = fs::weakly_canonical(page.place, error);
        page.place = error ? page.place : behindLinks;
        page.unfinished = page.place;
        page.unfinished += "." + std::to_string(std::random_device{}()) + ".part";
    }
    errno = 0;
    page.stream.open(inPlace ? page.place : page.unfinished, std::ios::binary | std::ios::trunc);
    if (!page.stream) {
        const std::string why = lastError();
        page.unfinished.clear();
        return cannot(page.place, why);
    }
    if (!inPlace) { // it can be written; who is interrupted while he reads leaves nothing
        pageAbandon(page);
    }
    return true;
}

bool pageFinish(PageFile &page, const std::string &json) {
    const std::string data = withoutMarkup(json);
    if (page.toStandardOutput) { // main looks at its state
        for (const std::string_view part : {kPageBegin, std::string_view(data), kPageEnd}) {
            std::fwrite(part.data(), 1, part.size(), stdout);
        }
        return true;
    }
    errno = 0;
    if (!page.unfinished.empty()) {
        page.stream.open(page.unfinished, std::ios::binary | std::ios::trunc);
    }
    page.stream << kPageBegin << data << kPageEnd;
    page.stream.close();
    if (!page.stream) {
        const std::string why = lastError();
        pageAbandon(page);
        return cannot(page.place, why);
    }
    if (page.unfinished.empty()) {
        return true;
    }
    std::error_code error;
    fs::rename(page.unfinished, page.place, error);
    if (error) {
        pageAbandon(page);
        return cannot(page.place, error.message());
    }
    return true;
}

void pageAbandon(PageFile &page) {
    page.stream.close();
    std::error_code unimportant;
    if (!page.unfinished.empty()) {
        fs::remove(page.unfinished, unimportant);
    }
}

} // namespace traceview
