#include "audio_level.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <type_traits>

namespace {

template <class Sample> void addPlane(AudioLevel &level, const uint8_t *plane, std::size_t count) {
    // Integers have their own full scale; bytes are unsigned, around 128.
    constexpr double kZero = std::is_same_v<Sample, uint8_t> ? 128 : 0;
    constexpr double kFull = std::is_same_v<Sample, uint8_t> ? 128
                             : std::is_integral_v<Sample> ? -static_cast<double>(std::numeric_limits<Sample>::min())
                                                          : 1;
    const auto *const samples = reinterpret_cast<const Sample *>(plane);
    for (std::size_t i = 0; i < count; ++i) {
        const double value = (static_cast<double>(samples[i]) - kZero) / kFull;
        level.squares += value * value;
        level.peak = std::max(level.peak, std::fabs(value));
    }
    level.values += count;
}

void addPlane(AudioLevel &level, AVSampleFormat format, const uint8_t *plane, std::size_t count) {
    switch (format) {
    case AV_SAMPLE_FMT_U8: return addPlane<uint8_t>(level, plane, count);
    case AV_SAMPLE_FMT_S16: return addPlane<int16_t>(level, plane, count);
    case AV_SAMPLE_FMT_S32: return addPlane<int32_t>(level, plane, count);
    case AV_SAMPLE_FMT_S64: return addPlane<int64_t>(level, plane, count);
    case AV_SAMPLE_FMT_FLT: return addPlane<float>(level, plane, count);
    case AV_SAMPLE_FMT_DBL: return addPlane<double>(level, plane, count);
    default: return;
    }
}

double decibels(double value) { return 20 * std::log10(value); }

} // namespace

void addSamples(AudioLevel &level, const AVFrame *block) {
    const auto format = static_cast<AVSampleFormat>(block->format);
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const auto channels = static_cast<std::size_t>(block->ch_layout.nb_channels);
    const auto samples = static_cast<std::size_t>(block->nb_samples);
    for (std::size_t i = 0; i < (planar ? channels : 1); ++i) {
        addPlane(level, av_get_packed_sample_fmt(format), block->extended_data[i],
                 planar ? samples : samples * channels);
    }
}

double rmsDecibels(const AudioLevel &level) {
    return decibels(level.values != 0 ? std::sqrt(level.squares / static_cast<double>(level.values)) : 0);
}

double peakDecibels(const AudioLevel &level) { return decibels(level.peak); }
