#include "picture_stats.h"

#include <cstddef>
#include <numeric>
#include <vector>

void addPicture(PictureStats &stats, const Media &picture) {
    std::vector<uint8_t> scratch;
    for (int row = 0; row < picture.height; ++row) {
        const uint8_t *const luma = lumaRow(picture, row, scratch);
        if (luma == nullptr) {
            return;
        }
        for (int x = 0; x < picture.width; ++x) {
            ++stats.histogram[luma[x]];
        }
    }
}

double meanLuma(const PictureStats &stats) {
    double sum = 0;
    double pixels = 0;
    for (std::size_t luma = 0; luma < stats.histogram.size(); ++luma) {
        const auto count = static_cast<double>(stats.histogram[luma]);
        sum += count * static_cast<double>(luma);
        pixels += count;
    }
    return pixels > 0 ? sum / pixels : -1;
}

unsigned lumaAt(const PictureStats &stats, double share) {
    const uint64_t pixels = std::accumulate(stats.histogram.begin(), stats.histogram.end(), uint64_t{0});
    const double wanted = share * static_cast<double>(pixels);
    uint64_t passed = 0;
    for (unsigned luma = 0; luma < stats.histogram.size(); ++luma) {
        passed += stats.histogram[luma];
        if (static_cast<double>(passed) >= wanted) {
            return luma;
        }
    }
    return 255;
}
