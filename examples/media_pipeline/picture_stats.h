/** @file
 *  How bright the pictures of a stream are. */
#ifndef MEDIA_PIPELINE_PICTURE_STATS_H
#define MEDIA_PIPELINE_PICTURE_STATS_H

#include "media.h"

#include <array>
#include <cstdint>

struct PictureStats {
    std::array<uint64_t, 256> histogram{}; ///< pixels by luma, brought to 8 bits
};

/** Counts the pixels of a picture. Pictures in floating point or from a bare sensor have no luma to be read, and
 *  count nothing. */
void addPicture(PictureStats &stats, const Media &picture);

/** Mean luma, 0 to 255; below 0 if there were no pixels. */
double meanLuma(const PictureStats &stats);
/** The luma that `share` of all pixels, 0 to 1, don't exceed. */
unsigned lumaAt(const PictureStats &stats, double share);

#endif
