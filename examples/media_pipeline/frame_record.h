/** @file
 *  What the sink keeps of a decoded picture or block of samples, so that two runs can be compared. */
#ifndef MEDIA_PIPELINE_FRAME_RECORD_H
#define MEDIA_PIPELINE_FRAME_RECORD_H

#include "libav.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

struct FrameRecord {
    int64_t time = AV_NOPTS_VALUE; ///< presentation time, in the stream's unit
    int format = -1;
    int width = 0; ///< pixels; 0 for sound
    int height = 0;
    int samples = 0; ///< per channel; 0 for a picture
    int channels = 0;
    int rate = 0;
    std::array<uint8_t, 16> checksum{}; ///< of the visible pixels or of all samples

    bool operator==(const FrameRecord &) const = default;
};

struct HashDeleter {
    void operator()(AVMurMur3 *hash) const { av_free(hash); }
};
/** The state of a checksum; one for each thread that computes any. */
using Hash = std::unique_ptr<AVMurMur3, HashDeleter>;
/** @throw std::bad_alloc */
Hash makeHash();

FrameRecord recordFrame(const Hash &hash, const AVFrame *media, bool picture);

/** In what `got` differs from `wanted`, in words; empty if in nothing. */
std::string recordDifference(const FrameRecord &got, const FrameRecord &wanted);

/** Such as "yuv420p 320x180" or "s16 2 ch 44100 Hz". */
std::string recordFormat(const FrameRecord &record);

#endif
