// The reader of uncompressed clips, for platforms without decoder libraries: the YUV4MPEG2 form, 8 bits a sample.
// Each picture is read straight into the data of a frame.
#include "media_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace {

struct FileCloser {
    void operator()(std::FILE *file) const { std::fclose(file); }
};

// How the samples of a picture lie: a plane of luma, and two of colour at 1 sample for so many pixels.
struct Colour {
    const char *tag;    // in the file's first line, behind the C
    const char *format; // as the program calls it
    int planes;
    int perColumn;
    int perRow;
};
constexpr Colour kColours[] = {
    {"420", "yuv420p", 3, 2, 2},      {"420jpeg", "yuv420p", 3, 2, 2}, {"420mpeg2", "yuv420p", 3, 2, 2},
    {"420paldv", "yuv420p", 3, 2, 2}, {"422", "yuv422p", 3, 2, 1},     {"444", "yuv444p", 3, 1, 1},
    {"mono", "gray", 1, 1, 1},
};

constexpr int kLongestSide = 16384;        // pixels; more is a damaged file
constexpr std::size_t kLongestLine = 1024; // bytes of a line of text in the file

} // namespace

struct MediaSource {
    std::unique_ptr<std::FILE, FileCloser> file;
    FrameLedger *ledger = nullptr; // null: into buffers of the reader's own
    Colour colour = kColours[0];
    int width = 0;
    int height = 0;
};

void MediaSourceDeleter::operator()(MediaSource *source) const { delete source; }

namespace {

std::size_t planeWidth(const MediaSource &source, int plane) {
    const int per = plane == 0 ? 1 : source.colour.perColumn;
    return static_cast<std::size_t>((source.width + per - 1) / per);
}

int planeRows(const MediaSource &source, int plane) {
    const int per = plane == 0 ? 1 : source.colour.perRow;
    return (source.height + per - 1) / per;
}

std::size_t pictureSize(const MediaSource &source) {
    std::size_t size = 0;
    for (int plane = 0; plane < source.colour.planes; ++plane) {
        size += planeWidth(source, plane) * static_cast<std::size_t>(planeRows(source, plane));
    }
    return size;
}

// The next line without its end; false at the file's end or if there is none of a sound length.
bool readLine(std::FILE *file, std::string &line) {
    std::array<char, kLongestLine> text{};
    if (std::fgets(text.data(), static_cast<int>(text.size()), file) == nullptr) {
        return false;
    }
    const char *const end = std::strchr(text.data(), '\n');
    if (end == nullptr) {
        return false;
    }
    line.assign(text.data(), static_cast<std::size_t>(end - text.data()));
    return true;
}

bool parseSide(int &side, const std::string &digits) {
    const char *const end = digits.data() + digits.size();
    const auto [stop, problem] = std::from_chars(digits.data(), end, side);
    return problem == std::errc() && stop == end && side >= 1 && side <= kLongestSide;
}

// "25:1" is 25 pictures a second. False if it says nothing.
bool parseRate(double &unit, const std::string &ratio) {
    int pictures = 0;
    int seconds = 0;
    const char *const end = ratio.data() + ratio.size();
    const auto [colon, problem] = std::from_chars(ratio.data(), end, pictures);
    if (problem != std::errc() || colon == end || *colon != ':') {
        return false;
    }
    const auto [stop, wrong] = std::from_chars(colon + 1, end, seconds);
    if (wrong != std::errc() || stop != end || pictures < 1 || seconds < 1) {
        return false;
    }
    unit = static_cast<double>(seconds) / pictures;
    return true;
}

// Takes one word of the first line. Returns what is wrong with it; words of no meaning here are passed over.
std::string takeWord(MediaSource &source, MediaStream &stream, const std::string &word) {
    const std::string value = word.substr(1);
    switch (word[0]) {
    case 'W': return parseSide(source.width, value) ? "" : "its width makes no sense";
    case 'H': return parseSide(source.height, value) ? "" : "its height makes no sense";
    case 'F': return parseRate(stream.unit, value) ? "" : "its rate makes no sense";
    case 'C': break;
    default: return "";
    }
    const auto *const found = std::find_if(std::begin(kColours), std::end(kColours),
                                           [&](const Colour &colour) { return value == colour.tag; });
    if (found == std::end(kColours)) {
        return "pixels of the kind " + value + " are not read here";
    }
    source.colour = *found;
    return "";
}

// The file's first line. Returns what is wrong with it.
std::string parseHeader(MediaSource &source, MediaStream &stream) {
    std::string line;
    if (!readLine(source.file.get(), line)) {
        return "it is no uncompressed clip (YUV4MPEG2)";
    }
    std::istringstream words(line);
    std::string word;
    if (!(words >> word) || word != "YUV4MPEG2") {
        return "it is no uncompressed clip (YUV4MPEG2)";
    }
    while (words >> word) {
        std::string problem = takeWord(source, stream, word);
        if (!problem.empty()) {
            return problem;
        }
    }
    return source.width != 0 && source.height != 0 ? "" : "it doesn't say how large its pictures are";
}

std::string open(MediaFile &file, const std::string &path) {
    MediaSource &source = *file.source;
    source.file.reset(std::fopen(path.c_str(), "rb"));
    if (source.file == nullptr) {
        return std::strerror(errno); // NOLINT(concurrency-mt-unsafe): before there are threads
    }
    MediaStream &stream = file.streams.emplace_back();
    stream.decoded = true;
    stream.pictures = true;
    stream.codec = "rawvideo";
    std::string problem = parseHeader(source, stream);
    std::error_code error;
    const auto bytes = static_cast<double>(std::filesystem::file_size(path, error));
    if (!error) { // nearly: each picture has a line of text in front
        file.seconds = bytes / static_cast<double>(pictureSize(source) + 1) * stream.unit;
    }
    return problem;
}

// Room for a picture: of a frame, or of the reader's own. Null if there is no memory.
uint8_t *makeRoom(Media &media, FrameLedger *ledger, std::size_t size) {
    if (ledger == nullptr) {
        const auto own = std::make_shared<std::vector<uint8_t>>(size);
        media.hold = own;
        return own->data();
    }
    OwnFrame frame(ledgerAlloc(*ledger, size));
    media.frame = frame.get();
    media.hold = std::shared_ptr<const DFRAME>(std::move(frame));
    return media.frame != nullptr ? media.frame->lpData : nullptr;
}

void describePlanes(Media &media, const MediaSource &source, const uint8_t *start) {
    for (int plane = 0; plane < source.colour.planes; ++plane) {
        const std::size_t width = planeWidth(source, plane);
        const int rows = planeRows(source, plane);
        media.planes.push_back({start, static_cast<std::ptrdiff_t>(width), width, rows});
        start += width * static_cast<std::size_t>(rows);
    }
}

} // namespace

MediaFile openMedia(const std::string &path, int, FrameLedger *ledger, std::string &error) {
    MediaFile file;
    file.source.reset(new MediaSource);
    file.source->ledger = ledger;
    error = mediaPathProblem(path);
    if (error.empty()) {
        error = open(file, path);
    }
    return error.empty() ? std::move(file) : MediaFile{};
}

std::string decodeMedia(MediaFile &file, const Deliver &deliver) {
    const MediaSource &source = *file.source;
    const std::size_t size = pictureSize(source);
    std::string line;
    for (int64_t number = 0; readLine(source.file.get(), line); ++number) {
        const std::string where = "picture " + std::to_string(number);
        if (line != "FRAME" && !line.starts_with("FRAME ")) {
            return "damaged: no picture begins where " + where + " should";
        }
        const auto media = std::make_shared<Media>();
        uint8_t *const data = makeRoom(*media, source.ledger, size);
        if (data == nullptr) {
            return "decoding ended at " + where + ": no memory";
        }
        if (std::fread(data, 1, size, source.file.get()) != size) {
            return "damaged: the file ends inside " + where;
        }
        media->time = number;
        media->format = source.colour.format;
        media->width = source.width;
        media->height = source.height;
        describePlanes(*media, source, data);
        if (!deliver(media)) {
            return "";
        }
    }
    return std::ferror(source.file.get()) != 0 ? "reading stopped" : "";
}

const uint8_t *lumaRow(const Media &picture, int row, std::vector<uint8_t> &) {
    return picture.planes[0].start + row * picture.planes[0].stride;
}
