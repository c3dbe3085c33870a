#include "audio_level.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <type_traits>

namespace {

template <class Sample> void addPlane(AudioLevel &level, const MediaPlane &plane) {
    // Integers have their own full scale; bytes are unsigned, around 128.
    constexpr double kZero = std::is_same_v<Sample, uint8_t> ? 128 : 0;
    constexpr double kFull = std::is_same_v<Sample, uint8_t> ? 128
                             : std::is_integral_v<Sample> ? -static_cast<double>(std::numeric_limits<Sample>::min())
                                                          : 1;
    const auto *const samples = reinterpret_cast<const Sample *>(plane.start);
    const std::size_t count = plane.bytes / sizeof(Sample);
    for (std::size_t i = 0; i < count; ++i) {
        const double value = (static_cast<double>(samples[i]) - kZero) / kFull;
        level.squares += value * value;
        level.peak = std::max(level.peak, std::fabs(value));
    }
    level.values += count;
}

void addPlane(AudioLevel &level, SampleKind kind, const MediaPlane &plane) {
    switch (kind) {
    case SampleKind::u8: return addPlane<uint8_t>(level, plane);
    case SampleKind::s16: return addPlane<int16_t>(level, plane);
    case SampleKind::s32: return addPlane<int32_t>(level, plane);
    case SampleKind::s64: return addPlane<int64_t>(level, plane);
    case SampleKind::f32: return addPlane<float>(level, plane);
    case SampleKind::f64: return addPlane<double>(level, plane);
    case SampleKind::other: return;
    }
}

double decibels(double value) { return 20 * std::log10(value); }

} // namespace

void addSamples(AudioLevel &level, const Media &block) {
    for (const MediaPlane &plane : block.planes) {
        addPlane(level, block.sampleKind, plane);
    }
}

double rmsDecibels(const AudioLevel &level) {
    return decibels(level.values != 0 ? std::sqrt(level.squares / static_cast<double>(level.values)) : 0);
}

double peakDecibels(const AudioLevel &level) { return decibels(level.peak); }
