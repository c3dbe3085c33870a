// The reader over libav: any format that its demuxers and decoders know.
#include "media_file.h"

#include "decoded.h"
#include "frame_buffers.h"
#include "libav_log.h"

namespace {

struct DemuxerDeleter {
    void operator()(AVFormatContext *demuxer) const { avformat_close_input(&demuxer); }
};
struct DecoderDeleter {
    void operator()(AVCodecContext *decoder) const { avcodec_free_context(&decoder); }
};
using Decoder = std::unique_ptr<AVCodecContext, DecoderDeleter>;

} // namespace

struct MediaSource {
    std::unique_ptr<AVFormatContext, DemuxerDeleter> demuxer;
    FrameLedger *ledger = nullptr; // null: the decoders have buffers of their own
    std::vector<Decoder> decoders; // by stream; null for streams without picture and sound
};

void MediaSourceDeleter::operator()(MediaSource *source) const { delete source; }

namespace {

struct PacketDeleter {
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};

// Makes the decoder of one stream. Returns what went wrong.
std::string openDecoder(Decoder &decoder, const AVStream *stream, int threads, FrameLedger *ledger) {
    const std::string name = avcodec_get_name(stream->codecpar->codec_id);
    const AVCodec *const codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (codec == nullptr) {
        return "no decoder for " + name;
    }
    decoder.reset(avcodec_alloc_context3(codec));
    if (decoder == nullptr) {
        return libavError(AVERROR(ENOMEM));
    }
    int error = avcodec_parameters_to_context(decoder.get(), stream->codecpar);
    if (error >= 0) {
        decoder->pkt_timebase = stream->time_base;
        decoder->thread_count = threads;
        decoder->err_recognition |= AV_EF_CRCCHECK; // so that damage is found where the format lets it
        if (ledger != nullptr) {
            frameBuffersAttach(decoder.get(), *ledger);
        }
        error = avcodec_open2(decoder.get(), codec, nullptr);
    }
    return error < 0 ? "the decoder for " + name + " does not start: " + libavError(error) : "";
}

std::string openDecoders(MediaSource &source, int threads) {
    bool any = false;
    for (unsigned i = 0; i < source.demuxer->nb_streams; ++i) {
        AVStream *const stream = source.demuxer->streams[i];
        const AVMediaType kind = stream->codecpar->codec_type;
        Decoder &decoder = source.decoders.emplace_back();
        if (kind != AVMEDIA_TYPE_VIDEO && kind != AVMEDIA_TYPE_AUDIO) {
            stream->discard = AVDISCARD_ALL;
            continue;
        }
        const std::string error = openDecoder(decoder, stream, threads, source.ledger);
        if (!error.empty()) {
            return "stream " + std::to_string(i) + ": " + error;
        }
        any = true;
    }
    return any ? "" : "there is neither picture nor sound in it";
}

std::string openDemuxer(MediaSource &source, const std::string &path) {
    libavLogCatch();
    libavLogTake();
    AVFormatContext *demuxer = nullptr;
    int error = avformat_open_input(&demuxer, ("file:" + path).c_str(), nullptr, nullptr); // a path, never a URL
    source.demuxer.reset(demuxer);
    if (error >= 0) {
        error = avformat_find_stream_info(demuxer, nullptr);
    }
    const LibavComplaints complaints = libavLogTake(); // those of a look ahead count only if it failed
    const std::string reason = complaints.count != 0 ? " (" + complaints.first + ")" : "";
    return error < 0 ? libavError(error) + reason : "";
}

// What one run of decoding shares.
struct Run {
    MediaSource &source;
    const Deliver &deliver;
    DecodedFrame output;
    uint64_t bad = 0;         // packets or outputs that failed
    std::string firstError{}; // of those; or the want of memory
    bool noMemory = false;
    bool ended = false; // by deliver, or for want of memory
};

// True if a decoder had to do without memory. Some decoders give the refusal of a buffer another name.
bool lacksMemory(const MediaSource &source, int error) {
    return error == AVERROR(ENOMEM) || (source.ledger != nullptr && ledgerFigures(*source.ledger).refused != 0);
}

void noteError(Run &run, std::size_t stream, int error) {
    if (lacksMemory(run.source, error)) {
        run.noMemory = true;
        error = AVERROR(ENOMEM);
    }
    run.ended = run.ended || run.noMemory;
    if (run.bad++ == 0 || run.noMemory) {
        run.firstError = "stream " + std::to_string(stream) + ": " + libavError(error);
    }
}

// Feeds one packet, or the null that ends the stream, and delivers what comes out.
void decodePacket(Run &run, std::size_t stream, const AVPacket *packet) {
    AVCodecContext *const decoder = run.source.decoders[stream].get();
    int error = avcodec_send_packet(decoder, packet);
    if (error < 0) {
        noteError(run, stream, error);
    }
    while (!run.ended) {
        error = avcodec_receive_frame(decoder, run.output.get());
        if (error == AVERROR(EAGAIN) || error == AVERROR_EOF) {
            return;
        }
        if (error < 0) { // behind it there may be more
            noteError(run, stream, error);
            continue;
        }
        const auto media = describeOutput(run.output.get(), stream, run.source.ledger);
        av_frame_unref(run.output.get());
        if (media == nullptr) {
            noteError(run, stream, AVERROR(ENOMEM));
        } else {
            run.ended = !run.deliver(media);
        }
    }
}

// One line for all that went wrong.
std::string errorText(const Run &run, int readError) {
    const LibavComplaints complaints = libavLogTake();
    if (run.noMemory) {
        return "decoding ended at " + run.firstError;
    }
    std::string text;
    const auto add = [&](const std::string &more) { text += (text.empty() ? "damaged: " : "; ") + more; };
    if (run.bad != 0) {
        add("packets that can't be decoded: " + std::to_string(run.bad) + ", first in " + run.firstError);
    }
    if (readError != AVERROR_EOF && readError < 0) {
        add("reading stopped: " + libavError(readError));
    }
    if (complaints.count != 0) {
        add("errors that libav reports: " + std::to_string(complaints.count) + ", first: " + complaints.first);
    }
    return text;
}

// What the program wants to know of the streams before the first output.
void describeStreams(MediaFile &file) {
    const MediaSource &source = *file.source;
    for (std::size_t i = 0; i < source.decoders.size(); ++i) {
        MediaStream &stream = file.streams.emplace_back();
        const AVCodecContext *const decoder = source.decoders[i].get();
        if (decoder != nullptr) {
            stream.decoded = true;
            stream.pictures = decoder->codec_type == AVMEDIA_TYPE_VIDEO;
            stream.codec = avcodec_get_name(decoder->codec_id);
            stream.unit = av_q2d(source.demuxer->streams[i]->time_base);
        }
    }
    file.seconds = static_cast<double>(source.demuxer->duration) / AV_TIME_BASE; // below 0 if it isn't known
}

} // namespace

MediaFile openMedia(const std::string &path, int threads, FrameLedger *ledger, std::string &error) {
    MediaFile file;
    file.source.reset(new MediaSource);
    file.source->ledger = ledger;
    error = mediaPathProblem(path);
    if (error.empty()) {
        error = openDemuxer(*file.source, path);
    }
    if (error.empty()) {
        error = openDecoders(*file.source, threads);
    }
    if (!error.empty()) {
        return {};
    }
    describeStreams(file);
    return file;
}

std::string decodeMedia(MediaFile &file, const Deliver &deliver) {
    MediaSource &source = *file.source;
    const std::unique_ptr<AVPacket, PacketDeleter> packet(av_packet_alloc());
    Run run{source, deliver, DecodedFrame(av_frame_alloc())};
    if (packet == nullptr || run.output == nullptr) {
        return libavError(AVERROR(ENOMEM));
    }
    int readError = 0;
    while (!run.ended && (readError = av_read_frame(source.demuxer.get(), packet.get())) >= 0) {
        const auto stream = static_cast<std::size_t>(packet->stream_index);
        if (stream < source.decoders.size() && source.decoders[stream] != nullptr) {
            decodePacket(run, stream, packet.get());
        }
        av_packet_unref(packet.get());
    }
    for (std::size_t stream = 0; stream < source.decoders.size() && !run.ended; ++stream) {
        if (source.decoders[stream] != nullptr) {
            decodePacket(run, stream, nullptr);
        }
    }
    return errorText(run, readError);
}
