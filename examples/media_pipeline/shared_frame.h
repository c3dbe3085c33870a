/** @file
 *  One holder's share in a decoded picture or block of samples.
 *
 *  A share is two references that go together. The one to the frame (DFRAME_ADDREF) keeps the memory. The one to
 *  the reader's output tells a decoder that somebody reads the buffer. That also carries what one output is beyond
 * its bytes (planes, geometry, time); it can't stand in the frame's header, since a decoder may put out one buffer
 *  twice. */
#ifndef MEDIA_PIPELINE_SHARED_FRAME_H
#define MEDIA_PIPELINE_SHARED_FRAME_H

#include "frame_ledger.h"
#include "media.h"

#include <memory>

struct SharedFrame {
    OwnFrame frame; ///< null if the reader has put the bytes elsewhere
    std::shared_ptr<const Media> media;
};

/** Makes a share.
 *  @return false if there is no memory; then `share` holds nothing new */
inline bool shareFrame(SharedFrame &share, const std::shared_ptr<const Media> &media) {
    if (media->frame != nullptr && !ledgerShare(media->frame)) {
        return false;
    }
    share.frame.reset(media->frame);
    share.media = media;
    return true;
}

#endif
