/** @file
 *  The decoder's buffer hook: what a decoder writes, it writes into the data of our frames. */
#ifndef MEDIA_PIPELINE_FRAME_BUFFERS_H
#define MEDIA_PIPELINE_FRAME_BUFFERS_H

#include "frame_ledger.h"
#include "libav.h"

/** Makes a decoder, not yet opened, take its buffers from frames of `ledger`. Decoders that can't use foreign
 *  buffers (no AV_CODEC_CAP_DR1) keep their own. */
void frameBuffersAttach(AVCodecContext *decoder, FrameLedger &ledger);

/** The frame that a decoded picture or block of samples lies in; null if the decoder has put it elsewhere. The
 *  AVFrame holds a reference to the frame. */
PDFRAME frameBuffersFind(FrameLedger &ledger, const AVFrame *media);

#endif
