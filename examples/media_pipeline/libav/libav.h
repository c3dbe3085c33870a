/** @file
 *  The decoder libraries' C headers, for C++. */
#ifndef MEDIA_PIPELINE_LIBAV_H
#define MEDIA_PIPELINE_LIBAV_H

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include <string>

/** What `error`, a negative result of libav, means. */
inline std::string libavError(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    av_strerror(error, text, sizeof text);
    return text;
}

#endif
