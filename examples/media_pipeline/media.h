/** @file
 *  A decoded picture or block of samples, whichever reader it comes from: readers that decode many formats stand in
 *  `libav/`, one for uncompressed clips in `raw/`. */
#ifndef MEDIA_PIPELINE_MEDIA_H
#define MEDIA_PIPELINE_MEDIA_H

#include <brenvole/dframe.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

constexpr int64_t kNoTime = INT64_MIN;

enum class SampleKind { other, u8, s16, s32, s64, f32, f64 };

/** What can be seen or heard of a plane. The bytes between its rows are the reader's, and undefined. */
struct MediaPlane {
    const uint8_t *start = nullptr;
    std::ptrdiff_t stride = 0; ///< from row to row, in bytes; below 0 if the rows go upwards
    std::size_t bytes = 0;     ///< of a row
    int rows = 1;              ///< 1 for sound and for a palette
};

/** One output of a reader. Nobody writes to it or to its bytes: several threads read them at once. */
struct Media {
    std::size_t stream = 0;
    int64_t time = kNoTime; ///< presentation time, in the stream's unit
    std::string format;     ///< such as "yuv420p" or "s16"
    int width = 0;          ///< pixels; 0 for sound
    int height = 0;
    int samples = 0; ///< per channel; 0 for a picture
    int channels = 0;
    int rate = 0; ///< samples a second
    SampleKind sampleKind = SampleKind::other;
    std::vector<MediaPlane> planes; ///< of one colour, of one channel, or of several
    PDFRAME frame = nullptr;        ///< what the bytes lie in; null if the reader has put them elsewhere
    /** Keeps the bytes, and tells a decoder that somebody reads them: where the decoder's own reference is the only
     *  one left, it may draw the next picture over the last. */
    std::shared_ptr<const void> hold;
};

/** Calls take(start, bytes) for each row of each plane. */
template <class Take> void forEachRow(const Media &media, const Take &take) {
    for (const MediaPlane &plane : media.planes) {
        for (int row = 0; row < plane.rows; ++row) {
            take(plane.start + row * plane.stride, plane.bytes);
        }
    }
}

/** The luma of each pixel of a row, brought to 8 bits; the reader knows how its pixels are built.
 *  @param scratch  room for a row that doesn't lie there as luma bytes
 *  @return null if there is no luma to be read in such a picture */
const uint8_t *lumaRow(const Media &picture, int row, std::vector<uint8_t> &scratch);

#endif
