#include "decoded.h"

#include "frame_buffers.h"

#include <array>

namespace {

// What each component has of the luma, in 1/10000. Red, green and blue as in BT.709.
using LumaWeights = std::array<uint32_t, 3>;
constexpr LumaWeights kYuvWeights{10000, 0, 0};
constexpr LumaWeights kRgbWeights{2126, 7152, 722};
constexpr uint32_t kWhole = 10000;

const char *nameOr(const char *name, const char *otherwise) { return name != nullptr ? name : otherwise; }

void describePicture(Media &media, const AVFrame *picture) {
    const auto format = static_cast<AVPixelFormat>(picture->format);
    const AVPixFmtDescriptor *const about = av_pix_fmt_desc_get(format);
    media.format = nameOr(av_get_pix_fmt_name(format), "?");
    media.width = picture->width;
    media.height = picture->height;
    for (int i = 0; i < av_pix_fmt_count_planes(format); ++i) {
        const bool chroma = i == 1 || i == 2;
        const int rows = chroma ? AV_CEIL_RSHIFT(picture->height, about->log2_chroma_h) : picture->height;
        const int bytes = av_image_get_linesize(format, picture->width, i);
        if (bytes > 0) {
            media.planes.push_back({picture->data[i], picture->linesize[i], static_cast<std::size_t>(bytes), rows});
        }
    }
    if (about != nullptr && (about->flags & AV_PIX_FMT_FLAG_PAL) != 0) {
        media.planes.push_back({picture->data[1], 0, AVPALETTE_SIZE, 1});
    }
}

SampleKind kindOf(AVSampleFormat packed) {
    switch (packed) {
    case AV_SAMPLE_FMT_U8: return SampleKind::u8;
    case AV_SAMPLE_FMT_S16: return SampleKind::s16;
    case AV_SAMPLE_FMT_S32: return SampleKind::s32;
    case AV_SAMPLE_FMT_S64: return SampleKind::s64;
    case AV_SAMPLE_FMT_FLT: return SampleKind::f32;
    case AV_SAMPLE_FMT_DBL: return SampleKind::f64;
    default: return SampleKind::other;
    }
}

void describeSamples(Media &media, const AVFrame *block) {
    const auto format = static_cast<AVSampleFormat>(block->format);
    media.format = nameOr(av_get_sample_fmt_name(format), "?");
    media.sampleKind = kindOf(av_get_packed_sample_fmt(format));
    media.samples = block->nb_samples;
    media.channels = block->ch_layout.nb_channels;
    media.rate = block->sample_rate;
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const int planes = planar ? media.channels : 1;
    const int bytes = media.samples * av_get_bytes_per_sample(format) * (planar ? 1 : media.channels);
    for (int i = 0; i < planes; ++i) {
        media.planes.push_back({block->extended_data[i], 0, static_cast<std::size_t>(bytes), 1});
    }
}

// Pictures whose first component is no luma.
bool isRgb(const AVPixFmtDescriptor *about) {
    return (about->flags & AV_PIX_FMT_FLAG_RGB) != 0 && about->nb_components >= 3;
}

// Bytes that stand for the colours of a palette.
void readIndexed(uint8_t *luma, const AVFrame *picture, int row) {
    const uint8_t *const pixels = picture->data[0] + std::ptrdiff_t{row} * picture->linesize[0];
    const auto *const palette = reinterpret_cast<const uint32_t *>(picture->data[1]);
    for (int x = 0; x < picture->width; ++x) {
        const uint32_t colour = palette[pixels[x]];
        const uint32_t sum = kRgbWeights[0] * (colour >> 16 & 255) + kRgbWeights[1] * (colour >> 8 & 255) +
                             kRgbWeights[2] * (colour & 255);
        luma[x] = static_cast<uint8_t>(sum / kWhole);
    }
}

// Any other format, a component at a time.
void readComponents(std::vector<uint8_t> &luma, const AVFrame *picture, const AVPixFmtDescriptor *about, int row) {
    const LumaWeights &weights = isRgb(about) ? kRgbWeights : kYuvWeights;
    std::vector<uint16_t> values(luma.size());
    std::vector<uint32_t> sums(luma.size());
    const uint8_t *planes[4] = {picture->data[0], picture->data[1], picture->data[2], picture->data[3]};
    for (std::size_t i = 0; i < weights.size() && weights[i] != 0; ++i) {
        const uint32_t most = (1u << about->comp[i].depth) - 1;
        av_read_image_line2(values.data(), planes, picture->linesize, about, 0, row, static_cast<int>(i),
                            picture->width, 0, sizeof values[0]);
        for (std::size_t x = 0; x < values.size(); ++x) {
            sums[x] += weights[i] * (values[x] * 255u / most);
        }
    }
    for (std::size_t x = 0; x < sums.size(); ++x) {
        luma[x] = static_cast<uint8_t>(sums[x] / kWhole);
    }
}

} // namespace

std::shared_ptr<const Media> describeOutput(const AVFrame *output, std::size_t stream, FrameLedger *ledger) {
    auto media = std::make_shared<Media>();
    DecodedFrame reference(av_frame_clone(output));
    if (reference == nullptr) {
        return nullptr;
    }
    media->stream = stream;
    media->time = output->best_effort_timestamp != AV_NOPTS_VALUE ? output->best_effort_timestamp : kNoTime;
    media->frame = ledger != nullptr ? frameBuffersFind(*ledger, output) : nullptr;
    output->width != 0 ? describePicture(*media, reference.get()) : describeSamples(*media, reference.get());
    media->hold = std::shared_ptr<const AVFrame>(std::move(reference));
    return media;
}

const uint8_t *lumaRow(const Media &picture, int row, std::vector<uint8_t> &scratch) {
    const auto *const output = static_cast<const AVFrame *>(picture.hold.get());
    const AVPixFmtDescriptor *const about = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(output->format));
    // Pictures in floating point or from a bare sensor have none.
    constexpr uint64_t kUnreadable = AV_PIX_FMT_FLAG_FLOAT | AV_PIX_FMT_FLAG_BAYER | AV_PIX_FMT_FLAG_HWACCEL;
    if (about == nullptr || (about->flags & kUnreadable) != 0 || about->comp[0].depth > 16) {
        return nullptr;
    }
    const AVComponentDescriptor &first = about->comp[0];
    const bool indexed = (about->flags & AV_PIX_FMT_FLAG_PAL) != 0;
    if (!indexed && !isRgb(about) && first.plane == 0 && first.step == 1 && first.depth == 8) {
        return output->data[0] + std::ptrdiff_t{row} * output->linesize[0]; // the common case
    }
    scratch.resize(static_cast<std::size_t>(output->width));
    indexed ? readIndexed(scratch.data(), output, row) : readComponents(scratch, output, about, row);
    return scratch.data();
}
