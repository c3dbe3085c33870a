/** @file
 *  The visible bytes of a picture. Those between its rows are the decoder's, and undefined. */
#ifndef MEDIA_PIPELINE_PICTURE_ROWS_H
#define MEDIA_PIPELINE_PICTURE_ROWS_H

#include "libav.h"

#include <cstddef>

/** Calls take(start, bytes) for each row of each plane, and for a palette. */
template <class Take> void forEachRow(const AVFrame *picture, const Take &take) {
    const auto format = static_cast<AVPixelFormat>(picture->format);
    const AVPixFmtDescriptor *const about = av_pix_fmt_desc_get(format);
    const int planes = av_pix_fmt_count_planes(format);
    for (int i = 0; i < planes; ++i) {
        const bool chroma = i == 1 || i == 2;
        const int rows = chroma ? AV_CEIL_RSHIFT(picture->height, about->log2_chroma_h) : picture->height;
        const int bytes = av_image_get_linesize(format, picture->width, i);
        for (int row = 0; row < rows && bytes > 0; ++row) {
            const uint8_t *const start = picture->data[i] + std::ptrdiff_t{row} * picture->linesize[i];
            take(start, static_cast<std::size_t>(bytes));
        }
    }
    if ((about->flags & AV_PIX_FMT_FLAG_PAL) != 0) {
        take(static_cast<const uint8_t *>(picture->data[1]), std::size_t{AVPALETTE_SIZE});
    }
}

#endif
