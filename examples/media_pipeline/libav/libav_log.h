/** @file
 *  What libav complains of. Its messages go to us instead of the terminal: many kinds of damage are mended by a
 *  decoder and show up nowhere else. */
#ifndef MEDIA_PIPELINE_LIBAV_LOG_H
#define MEDIA_PIPELINE_LIBAV_LOG_H

#include <cstdint>
#include <string>

/** Messages of the level "error" and worse. */
struct LibavComplaints {
    uint64_t count = 0;
    std::string first; ///< text of the first one, without meaning if there is none
};

/** Catches libav's messages from here on, for the whole process. */
void libavLogCatch();

/** The complaints since the last call. */
LibavComplaints libavLogTake();

#endif
