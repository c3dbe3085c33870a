#include "peak.h"

#include "child.h"

#include <charconv>
#include <fstream>

namespace {

constexpr std::size_t kPage = 4096;
constexpr int64_t kMostBlocks = 4096; // with more, the child alone would take gigabytes

double residentAtBegin = -1; // KiB

// A figure of the process in KiB, as the system tells it; negative if it doesn't.
double statusFigure(const std::string &name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name + ':')) {
            return std::stod(line.substr(name.size() + 1));
        }
    }
    return -1;
}

} // namespace

void peakTouch(void *data, std::size_t size) {
    auto *const bytes = static_cast<volatile char *>(data);
    for (std::size_t at = 0; at < size; at += kPage) {
        bytes[at] = 1;
    }
}

bool peakWanted(const std::string &work, const std::string &side, int64_t n, int threads) {
    return threads == 1 && side != "floor" &&
           (work == "frame_1080p" || (work == "replace_block" && n <= kMostBlocks));
}

void peakBegin() {
    peakMode = true;
    std::ofstream("/proc/self/clear_refs") << "5\n"; // the peak starts again from what is resident now
    residentAtBegin = statusFigure("VmRSS");
}

double peakGrowth() {
    const double peak = statusFigure("VmHWM");
    return peak < 0 || residentAtBegin < 0 ? -1 : peak - residentAtBegin;
}

double peakMeasure(const std::string &benchmarkName) {
    const ChildResult child = childRun("/proc/self/exe", {kPeakOption + benchmarkName}, {});
    double growth = -1;
    std::from_chars(child.output.data(), child.output.data() + child.output.size(), growth);
    return child.whole ? growth : -1;
}
