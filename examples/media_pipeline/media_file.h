/** @file
 *  A media file and the decoders of its streams. */
#ifndef MEDIA_PIPELINE_MEDIA_FILE_H
#define MEDIA_PIPELINE_MEDIA_FILE_H

#include "frame_ledger.h"
#include "libav.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct DemuxerDeleter {
    void operator()(AVFormatContext *demuxer) const { avformat_close_input(&demuxer); }
};
struct DecoderDeleter {
    void operator()(AVCodecContext *decoder) const { avcodec_free_context(&decoder); }
};
using Decoder = std::unique_ptr<AVCodecContext, DecoderDeleter>;

struct MediaFile {
    std::unique_ptr<AVFormatContext, DemuxerDeleter> demuxer;
    FrameLedger *ledger = nullptr; ///< whose frames the decoders write into; null for buffers of their own
    std::vector<Decoder> decoders; ///< by stream; null for streams without picture and sound
};

/** Opens a file and a decoder for each stream of pictures or sound.
 *  @param threads  of each decoder
 *  @param ledger   outlives the file; null for the decoders' own buffers
 *  @param error    out: why it failed
 *  @return a file without demuxer if it failed */
MediaFile openMedia(const std::string &path, int threads, FrameLedger *ledger, std::string &error);

/** Takes one output of a decoder, which is valid during the call. False ends the decoding. */
using Deliver = std::function<bool(const AVFrame *media, std::size_t stream)>;

/** Decodes the whole file, going on behind damage. Within a stream the output has the order of presentation.
 *  @return what went wrong, in words; empty if nothing did */
std::string decodeMedia(MediaFile &file, const Deliver &deliver);

/** True for a stream of pictures, false for one of sound. */
bool hasPictures(const MediaFile &file, std::size_t stream);

#endif
