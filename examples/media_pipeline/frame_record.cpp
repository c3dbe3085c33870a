#include "frame_record.h"

#include "picture_rows.h"

#include <cstddef>
#include <new>

namespace {

void hashPicture(AVMurMur3 *hash, const AVFrame *picture) {
    forEachRow(picture, [hash](const uint8_t *start, std::size_t bytes) { av_murmur3_update(hash, start, bytes); });
}

void hashSamples(AVMurMur3 *hash, const AVFrame *block) {
    const auto format = static_cast<AVSampleFormat>(block->format);
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const auto channels = static_cast<std::size_t>(block->ch_layout.nb_channels);
    const std::size_t bytes = static_cast<std::size_t>(block->nb_samples) *
                              static_cast<std::size_t>(av_get_bytes_per_sample(format)) * (planar ? 1 : channels);
    for (std::size_t i = 0; i < (planar ? channels : 1); ++i) {
        av_murmur3_update(hash, block->extended_data[i], bytes);
    }
}

std::string timeText(int64_t time) { return time == AV_NOPTS_VALUE ? "none" : std::to_string(time); }

} // namespace

Hash makeHash() {
    Hash hash(av_murmur3_alloc());
    if (hash == nullptr) {
        throw std::bad_alloc();
    }
    return hash;
}

FrameRecord recordFrame(const Hash &hash, const AVFrame *media, bool picture) {
    FrameRecord record;
    record.time = media->best_effort_timestamp;
    record.format = media->format;
    record.width = media->width;
    record.height = media->height;
    record.samples = media->nb_samples;
    record.channels = media->ch_layout.nb_channels;
    record.rate = media->sample_rate;
    av_murmur3_init(hash.get());
    picture ? hashPicture(hash.get(), media) : hashSamples(hash.get(), media);
    av_murmur3_final(hash.get(), record.checksum.data());
    return record;
}

std::string recordDifference(const FrameRecord &got, const FrameRecord &wanted) {
    if (recordFormat(got) != recordFormat(wanted)) {
        return "it is " + recordFormat(got) + " instead of " + recordFormat(wanted);
    }
    if (got.samples != wanted.samples) {
        return "it has " + std::to_string(got.samples) + " samples instead of " + std::to_string(wanted.samples);
    }
    if (got.time != wanted.time) {
        return "its time is " + timeText(got.time) + " instead of " + timeText(wanted.time);
    }
    return got == wanted ? "" : "its content differs";
}

std::string recordFormat(const FrameRecord &record) {
    if (record.width != 0) {
        const char *const name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(record.format));
        return std::string(name != nullptr ? name : "?") + " " + std::to_string(record.width) + "x" +
               std::to_string(record.height);
    }
    const char *const name = av_get_sample_fmt_name(static_cast<AVSampleFormat>(record.format));
    return std::string(name != nullptr ? name : "?") + " " + std::to_string(record.channels) + " ch " +
           std::to_string(record.rate) + " Hz";
}
