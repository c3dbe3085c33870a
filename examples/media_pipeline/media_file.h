/** @file
 *  A media file, opened by the reader that the program is built with. */
#ifndef MEDIA_PIPELINE_MEDIA_FILE_H
#define MEDIA_PIPELINE_MEDIA_FILE_H

#include "frame_ledger.h"
#include "media.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct MediaSource; // what the reader needs
struct MediaSourceDeleter {
    void operator()(MediaSource *source) const;
};

struct MediaStream {
    bool decoded = false;  ///< false for streams without picture and sound
    bool pictures = false; ///< else sound
    std::string codec;
    double unit = 0; ///< of its times, in seconds
};

struct MediaFile {
    std::unique_ptr<MediaSource, MediaSourceDeleter> source; ///< null if the file could not be opened
    std::vector<MediaStream> streams;
    double seconds = 0; ///< not above 0: unknown
};

/** Opens a file and what decodes each stream of pictures or sound.
 *  @param threads  of each decoder
 *  @param ledger   whose frames are written into; outlives the file. Null for buffers of the reader's own
 *  @param error    out: why it failed
 *  @return a file without source if it failed */
MediaFile openMedia(const std::string &path, int threads, FrameLedger *ledger, std::string &error);

/** Takes one output. False ends the decoding. */
using Deliver = std::function<bool(const std::shared_ptr<const Media> &media)>;

/** Decodes the whole file, going on behind damage. Within a stream the output has the order of presentation.
 *  @return what went wrong, in words; empty if nothing did */
std::string decodeMedia(MediaFile &file, const Deliver &deliver);

/** Why a path is no media file; empty if it may be one. */
std::string mediaPathProblem(const std::string &path);

#endif
