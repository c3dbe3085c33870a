/** @file
 *  One holder's share in a decoded picture or block of samples.
 *
 *  A share is two references that go together. The one to the frame (DFRAME_ADDREF) keeps the memory. The one to
 *  the AVFrame tells the decoder that somebody reads the buffer: a decoder whose reference is the only one left
 *  may draw the next picture over the last. It also carries what one output of the decoder is beyond its bytes
 *  (planes, geometry, time); that can't stand in the frame's header, since a decoder may put out one buffer
 *  twice. */
#ifndef MEDIA_PIPELINE_SHARED_FRAME_H
#define MEDIA_PIPELINE_SHARED_FRAME_H

#include "frame_ledger.h"
#include "libav.h"

#include <cstddef>
#include <memory>

struct FrameDeleter {
    void operator()(PDFRAME frame) const { ledgerDrop(frame); }
};

struct SharedFrame {
    std::unique_ptr<DFRAME, FrameDeleter> frame; ///< null if the decoder didn't use the hook
    Media media;
    std::size_t stream = 0;
};

/** Makes a share. `media` is the decoder's output, `frame` what it lies in, or null.
 *  @return false if there is no memory; then `share` holds nothing new */
inline bool shareFrame(SharedFrame &share, const AVFrame *media, PDFRAME frame, std::size_t stream) {
    if (frame != nullptr && !ledgerShare(frame)) {
        return false;
    }
    share.frame.reset(frame);
    share.media.reset(av_frame_clone(media));
    share.stream = stream;
    return share.media != nullptr;
}

#endif
