#include "picture_stats.h"

#include <cstddef>
#include <numeric>
#include <vector>

namespace {

// What each component has of the luma, in 1/10000. Red, green and blue as in BT.709.
using LumaWeights = std::array<uint32_t, 3>;
constexpr LumaWeights kYuvWeights{10000, 0, 0};
constexpr LumaWeights kRgbWeights{2126, 7152, 722};
constexpr uint32_t kWhole = 10000;

// Pictures whose first component is no luma.
bool isRgb(const AVPixFmtDescriptor *about) {
    return (about->flags & AV_PIX_FMT_FLAG_RGB) != 0 && about->nb_components >= 3;
}

// The common case: a plane of luma bytes.
void addLumaPlane(PictureStats &stats, const AVFrame *picture) {
    for (int row = 0; row < picture->height; ++row) {
        const uint8_t *const pixels = picture->data[0] + std::ptrdiff_t{row} * picture->linesize[0];
        for (int x = 0; x < picture->width; ++x) {
            ++stats.histogram[pixels[x]];
        }
    }
}

// Bytes that stand for the colours of a palette.
void addIndexedPlane(PictureStats &stats, const AVFrame *picture) {
    std::array<std::size_t, 256> luma{};
    const auto *const palette = reinterpret_cast<const uint32_t *>(picture->data[1]);
    for (std::size_t i = 0; i < luma.size(); ++i) {
        const uint32_t red = palette[i] >> 16 & 255;
        const uint32_t green = palette[i] >> 8 & 255;
        const uint32_t blue = palette[i] & 255;
        luma[i] = (kRgbWeights[0] * red + kRgbWeights[1] * green + kRgbWeights[2] * blue) / kWhole;
    }
    for (int row = 0; row < picture->height; ++row) {
        const uint8_t *const pixels = picture->data[0] + std::ptrdiff_t{row} * picture->linesize[0];
        for (int x = 0; x < picture->width; ++x) {
            ++stats.histogram[luma[pixels[x]]];
        }
    }
}

// Any other format, a component of a row at a time.
void addComponents(PictureStats &stats, const AVFrame *picture, const AVPixFmtDescriptor *about) {
    const LumaWeights &weights = isRgb(about) ? kRgbWeights : kYuvWeights;
    std::vector<uint16_t> values(static_cast<std::size_t>(picture->width));
    std::vector<uint32_t> luma(values.size());
    const uint8_t *planes[4] = {picture->data[0], picture->data[1], picture->data[2], picture->data[3]};
    for (int row = 0; row < picture->height; ++row) {
        luma.assign(values.size(), 0);
        for (std::size_t i = 0; i < weights.size() && weights[i] != 0; ++i) {
            const uint32_t most = (1u << about->comp[i].depth) - 1;
            av_read_image_line2(values.data(), planes, picture->linesize, about, 0, row, static_cast<int>(i),
                                picture->width, 0, sizeof values[0]);
            for (std::size_t x = 0; x < values.size(); ++x) {
                luma[x] += weights[i] * (values[x] * 255u / most);
            }
        }
        for (const uint32_t value : luma) {
            ++stats.histogram[value / kWhole & 255];
        }
    }
}

} // namespace

void addPicture(PictureStats &stats, const AVFrame *picture) {
    const AVPixFmtDescriptor *const about = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(picture->format));
    constexpr uint64_t kUnreadable = AV_PIX_FMT_FLAG_FLOAT | AV_PIX_FMT_FLAG_BAYER | AV_PIX_FMT_FLAG_HWACCEL;
    if (about == nullptr || (about->flags & kUnreadable) != 0 || about->comp[0].depth > 16) {
        return;
    }
    const AVComponentDescriptor &first = about->comp[0];
    if ((about->flags & AV_PIX_FMT_FLAG_PAL) != 0) {
        addIndexedPlane(stats, picture);
    } else if (!isRgb(about) && first.plane == 0 && first.step == 1 && first.depth == 8) {
        addLumaPlane(stats, picture);
    } else {
        addComponents(stats, picture, about);
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
