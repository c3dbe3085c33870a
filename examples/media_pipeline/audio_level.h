/** @file
 *  How loud the sound of a stream is. */
#ifndef MEDIA_PIPELINE_AUDIO_LEVEL_H
#define MEDIA_PIPELINE_AUDIO_LEVEL_H

#include "media.h"

#include <cstdint>

struct AudioLevel {
    double squares = 0; ///< sum of the squared samples; full scale is 1
    double peak = 0;
    uint64_t values = 0; ///< samples of all channels
};

/** Counts in the samples of a block, in any of the sample formats. */
void addSamples(AudioLevel &level, const Media &block);

/** In dB below full scale; minus infinity for silence. */
double rmsDecibels(const AudioLevel &level);
double peakDecibels(const AudioLevel &level);

#endif
