// One AVFrame of the decoder gets one frame of ours, and all its planes lie in that frame's data, one behind the
// other. The decoder's AVBufferRef stands for one reference to the frame.
#include "frame_buffers.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace {

constexpr int kPlanes = 4; // of a picture, at most

// Where a plane or a row may begin, in bytes: the widest vectors that a decoder uses.
constexpr std::size_t kAlignment = 64;
// Room behind each plane, in bytes: decoders work in whole vectors and may read a little past the end.
constexpr std::size_t kPadding = 128;

constexpr std::size_t alignedUp(std::size_t bytes) { return (bytes + kAlignment - 1) / kAlignment * kAlignment; }

struct PictureLayout {
    std::array<int, kPlanes> linesizes{};
    std::array<std::size_t, kPlanes> planeSizes{};
    std::size_t total = 0;
};

// Rows of `width` pixels. False if some row would not begin where the decoder wants it.
bool layRows(PictureLayout &layout, AVPixelFormat format, int width, const int *rowAlignments) {
    if (av_image_fill_linesizes(layout.linesizes.data(), format, width) < 0) {
        return false;
    }
    for (std::size_t i = 0; i < kPlanes; ++i) {
        if (layout.linesizes[i] % std::max(rowAlignments[i], 1) != 0) {
            return false;
        }
    }
    return true;
}

int layPicture(PictureLayout &layout, AVCodecContext *decoder, const AVFrame *picture) {
    const auto format = static_cast<AVPixelFormat>(picture->format);
    int width = picture->width;
    int height = picture->height;
    int rowAlignments[AV_NUM_DATA_POINTERS] = {};
    avcodec_align_dimensions2(decoder, &width, &height, rowAlignments);
    // Wider rows, not single padded ones: decoders rely on the ratio between the rows of the planes. A row of
    // this many more pixels is a multiple of any alignment, also at one bit a pixel or in a halved plane.
    constexpr int kWidenAtMost = static_cast<int>(kAlignment) * 16;
    constexpr int kWidenStep = 8; // pixels; whole bytes in every format
    width = (width + kWidenStep - 1) / kWidenStep * kWidenStep;
    int wider = 0;
    while (!layRows(layout, format, width + wider, rowAlignments)) {
        wider += kWidenStep;
        if (wider > kWidenAtMost) {
            return AVERROR(EINVAL);
        }
    }
    std::array<std::ptrdiff_t, kPlanes> rows{};
    std::copy(layout.linesizes.begin(), layout.linesizes.end(), rows.begin());
    const int error = av_image_fill_plane_sizes(layout.planeSizes.data(), format, height, rows.data());
    for (std::size_t &size : layout.planeSizes) {
        size = size != 0 ? alignedUp(size + kPadding) : 0;
        layout.total += size;
    }
    return error;
}

// The free callback of the AVBuffer. It runs on the thread that drops the last reference to it, be it one of the
// decoder's own.
void dropBuffer(void *opaque, uint8_t *) { ledgerDrop(static_cast<PDFRAME>(opaque)); }

// Gives `media` one buffer of `size` bytes. Null if there is no memory.
uint8_t *attachFrame(AVCodecContext *decoder, AVFrame *media, std::size_t size) {
    PDFRAME const frame = ledgerAlloc(*static_cast<FrameLedger *>(decoder->opaque), size);
    if (frame == nullptr) {
        return nullptr;
    }
    media->buf[0] = av_buffer_create(frame->lpData, size, dropBuffer, frame, 0);
    if (media->buf[0] == nullptr) {
        ledgerDrop(frame);
        return nullptr;
    }
    return frame->lpData;
}

int placePicture(AVCodecContext *decoder, AVFrame *picture) {
    PictureLayout layout;
    const int error = layPicture(layout, decoder, picture);
    if (error < 0) {
        return error;
    }
    uint8_t *plane = attachFrame(decoder, picture, layout.total);
    if (plane == nullptr) {
        return AVERROR(ENOMEM);
    }
    for (std::size_t i = 0; i < kPlanes && layout.planeSizes[i] != 0; ++i) {
        picture->data[i] = plane;
        picture->linesize[i] = layout.linesizes[i];
        plane += layout.planeSizes[i];
    }
    picture->extended_data = picture->data;
    return 0;
}

int placeSamples(AVCodecContext *decoder, AVFrame *block) {
    const auto format = static_cast<AVSampleFormat>(block->format);
    const int channels = block->ch_layout.nb_channels;
    const int planes = av_sample_fmt_is_planar(format) != 0 ? channels : 1;
    const int size =
        av_samples_get_buffer_size(&block->linesize[0], channels, block->nb_samples, format, int{kAlignment});
    if (size < 0) {
        return size;
    }
    block->extended_data = block->data;
    if (planes > AV_NUM_DATA_POINTERS) { // freed by av_frame_unref
        block->extended_data =
            static_cast<uint8_t **>(av_calloc(static_cast<std::size_t>(planes), sizeof *block->extended_data));
    }
    uint8_t *const data = block->extended_data != nullptr
                              ? attachFrame(decoder, block, static_cast<std::size_t>(size) + kPadding)
                              : nullptr;
    if (data == nullptr) {
        if (block->extended_data != block->data) {
            av_freep(&block->extended_data);
        }
        return AVERROR(ENOMEM);
    }
    for (int i = 0; i < planes; ++i) {
        block->extended_data[i] = data + std::ptrdiff_t{i} * block->linesize[0];
        if (i < AV_NUM_DATA_POINTERS) {
            block->data[i] = block->extended_data[i];
        }
    }
    return 0;
}

int placeFrame(AVCodecContext *decoder, AVFrame *media, int flags) {
    if ((decoder->codec->capabilities & AV_CODEC_CAP_DR1) == 0) {
        return avcodec_default_get_buffer2(decoder, media, flags);
    }
    return decoder->codec_type == AVMEDIA_TYPE_VIDEO ? placePicture(decoder, media) : placeSamples(decoder, media);
}

} // namespace

void frameBuffersAttach(AVCodecContext *decoder, FrameLedger &ledger) {
    decoder->opaque = &ledger;
    decoder->get_buffer2 = placeFrame;
}

PDFRAME frameBuffersFind(FrameLedger &ledger, const AVFrame *media) {
    // Only a frame's address is known to the ledger, so a decoder's own buffer can't be taken for one of ours.
    void *const opaque = media->buf[0] != nullptr ? av_buffer_get_opaque(media->buf[0]) : nullptr;
    return ledgerKnows(ledger, opaque) ? static_cast<PDFRAME>(opaque) : nullptr;
}
