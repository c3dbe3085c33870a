/** @file
 *  What the sink keeps of a decoded picture or block of samples, so that two runs can be compared. */
#ifndef MEDIA_PIPELINE_FRAME_RECORD_H
#define MEDIA_PIPELINE_FRAME_RECORD_H

#include "media.h"

#include <cstdint>
#include <string>

struct FrameRecord {
    int64_t time = kNoTime; ///< these fields as in Media
    std::string format;
    int width = 0;
    int height = 0;
    int samples = 0;
    int channels = 0;
    int rate = 0;
    uint64_t checksum = 0; ///< of the visible pixels or of all samples

    bool operator==(const FrameRecord &) const = default;
};

FrameRecord recordFrame(const Media &media);

/** In what `got` differs from `wanted`, in words; empty if in nothing. */
std::string recordDifference(const FrameRecord &got, const FrameRecord &wanted);

/** Such as "yuv420p 320x180" or "s16 2 ch 44100 Hz". */
std::string recordFormat(const FrameRecord &record);

#endif
