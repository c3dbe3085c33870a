/** @file
 *  A decoder's output in the words of the program. */
#ifndef MEDIA_PIPELINE_DECODED_H
#define MEDIA_PIPELINE_DECODED_H

#include "frame_ledger.h"
#include "libav.h"
#include "media.h"

#include <memory>

struct DecodedFrameDeleter {
    void operator()(AVFrame *output) const { av_frame_free(&output); }
};
using DecodedFrame = std::unique_ptr<AVFrame, DecodedFrameDeleter>;

/** Describes an output, and holds a reference to it.
 *  @param ledger  of the frames that the decoder may have written into, or null
 *  @return null if there is no memory for the reference */
std::shared_ptr<const Media> describeOutput(const AVFrame *output, std::size_t stream, FrameLedger *ledger);

#endif
