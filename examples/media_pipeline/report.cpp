#include "report.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace {

std::string levelText(const StreamResult &stream) {
    char text[80];
    if (!stream.about.pictures) {
        std::snprintf(text, sizeof text, "%.1f dB RMS, peak %.1f dB", rmsDecibels(stream.level),
                      peakDecibels(stream.level));
        return text;
    }
    const double mean = meanLuma(stream.brightness);
    if (mean < 0) {
        return "not measured";
    }
    std::snprintf(text, sizeof text, "mean luma %.1f, 90 %% within %u to %u", mean, lumaAt(stream.brightness, 0.05),
                  lumaAt(stream.brightness, 0.95));
    return text;
}

void printStream(std::size_t number, const StreamResult &stream) {
    const std::string format = stream.records.empty() ? "nothing decoded" : recordFormat(stream.records.front());
    const std::string decoded =
        std::to_string(stream.records.size()) + (stream.about.pictures ? " pictures" : " blocks");
    const std::string placed = std::to_string(stream.placed);
    std::printf("%-7zu %-10s %-22s %-15s %-10s %s\n", number, stream.about.codec.c_str(), format.c_str(),
                decoded.c_str(), placed.c_str(), stream.records.empty() ? "" : levelText(stream).c_str());
}

void printLine(const char *name, const std::string &value) { std::printf("%-26s%s\n", name, value.c_str()); }

std::string megabytes(uint64_t bytes) {
    char text[40];
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

void printPoolLine(const char *name, const PoolFigures &figures) {
    std::printf("%-26s%-13s%-15s%s\n", name, megabytes(figures.total).c_str(), megabytes(figures.largestFree).c_str(),
                megabytes(figures.used).c_str());
}

void printPool(const PipelineResult &result) {
    const LedgerFigures &frames = result.frames;
    std::printf("\n%-26s%-13s%-15s%s\n", "memory of the frames", "total", "largest free", "used");
    if (result.pool.total != 0) {
        printPoolLine("pool, while most was used", frames.poolAtPeak);
        printPoolLine("pool, at the end", result.pool);
    }
    const uint64_t local = frames.bytesPeak - std::min(frames.bytesPeak, frames.poolAtPeak.used);
    std::printf("%-26s%-13s%-15s%s\n", "local heap, at that time", "", "", megabytes(local).c_str());
}

} // namespace

void printReport(const std::string &path, const PipelineResult &result, uint64_t messages) {
    std::printf("%s\n\n", std::filesystem::path(path).filename().string().c_str());
    std::printf("%-7s %-10s %-22s %-15s %-10s %s\n", "stream", "codec", "format", "decoded", "in frames", "level");
    uint64_t samples = 0;
    uint64_t outside = 0;
    for (std::size_t i = 0; i < result.streams.size(); ++i) {
        const StreamResult &stream = result.streams[i];
        if (stream.about.decoded) {
            printStream(i, stream);
            samples += stream.samples;
            outside += stream.records.size() - stream.placed;
        }
    }
    const uint64_t pictures = countRecords(result, true);
    const LedgerFigures &frames = result.frames;
    std::printf("\n");
    printLine("pictures", std::to_string(pictures));
    printLine("samples per channel", std::to_string(samples));
    printLine("outside of frames",
              std::to_string(outside) + (outside != 0 ? " (decoders that can't write into foreign buffers)" : ""));
    printLine("pictures edited", std::to_string(result.edits.edited));
    printLine("frames allocated", std::to_string(frames.allocated));
    printLine("bytes through the library", megabytes(frames.bytesUsed));
    printLine("most frames alive", std::to_string(frames.peak));
    printLine("frames alive at the end",
              std::to_string(frames.alive) +
                  (result.edits.lost != 0 ? ", of which lost on purpose: " + std::to_string(result.edits.lost) : ""));
    printLine("messages of the library", std::to_string(messages));
    char text[80];
    if (pictures != 0) {
        std::snprintf(text, sizeof text, "%.2f s, %.0f pictures/s", result.seconds,
                      static_cast<double>(pictures) / result.seconds);
    } else {
        std::snprintf(text, sizeof text, "%.2f s", result.seconds);
    }
    printLine("time", text);
    printPool(result);
}
