#include "media_file.h"

#include "frame_buffers.h"
#include "libav_log.h"

#include <filesystem>

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

std::string openDecoders(MediaFile &file, int threads) {
    bool any = false;
    for (unsigned i = 0; i < file.demuxer->nb_streams; ++i) {
        AVStream *const stream = file.demuxer->streams[i];
        const AVMediaType kind = stream->codecpar->codec_type;
        Decoder &decoder = file.decoders.emplace_back();
        if (kind != AVMEDIA_TYPE_VIDEO && kind != AVMEDIA_TYPE_AUDIO) {
            stream->discard = AVDISCARD_ALL;
            continue;
        }
        const std::string error = openDecoder(decoder, stream, threads, file.ledger);
        if (!error.empty()) {
            return "stream " + std::to_string(i) + ": " + error;
        }
        any = true;
    }
    return any ? "" : "there is neither picture nor sound in it";
}

std::string openDemuxer(MediaFile &file, const std::string &path) {
    libavLogTake();
    AVFormatContext *demuxer = nullptr;
    int error = avformat_open_input(&demuxer, ("file:" + path).c_str(), nullptr, nullptr); // a path, never a URL
    file.demuxer.reset(demuxer);
    if (error >= 0) {
        error = avformat_find_stream_info(demuxer, nullptr);
    }
    const LibavComplaints complaints = libavLogTake(); // those of a look ahead count only if it failed
    const std::string reason = complaints.count != 0 ? " (" + complaints.first + ")" : "";
    return error < 0 ? libavError(error) + reason : "";
}

// What one run of decoding shares.
struct Run {
    MediaFile &file;
    const Deliver &deliver;
    Media media;
    uint64_t bad = 0;         // packets or outputs that failed
    std::string firstError{}; // of those; or the want of memory
    bool noMemory = false;
    bool ended = false; // by deliver, or for want of memory
};

// True if a decoder had to do without memory. Some decoders give the refusal of a buffer another name.
bool lacksMemory(const MediaFile &file, int error) {
    return error == AVERROR(ENOMEM) || (file.ledger != nullptr && ledgerFigures(*file.ledger).refused != 0);
}

void noteError(Run &run, std::size_t stream, int error) {
    if (lacksMemory(run.file, error)) {
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
    AVCodecContext *const decoder = run.file.decoders[stream].get();
    int error = avcodec_send_packet(decoder, packet);
    if (error < 0) {
        noteError(run, stream, error);
    }
    while (!run.ended) {
        error = avcodec_receive_frame(decoder, run.media.get());
        if (error == AVERROR(EAGAIN) || error == AVERROR_EOF) {
            return;
        }
        if (error < 0) { // behind it there may be more
            noteError(run, stream, error);
            continue;
        }
        run.ended = !run.deliver(run.media.get(), stream);
        av_frame_unref(run.media.get());
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

// Why a path is no media file; empty if it may be one.
std::string pathProblem(const std::string &path) {
    std::error_code status;
    if (std::filesystem::is_directory(path, status)) {
        return "it is a directory";
    }
    return std::filesystem::file_size(path, status) == 0 && !status ? "it is empty" : "";
}

} // namespace

MediaFile openMedia(const std::string &path, int threads, FrameLedger *ledger, std::string &error) {
    MediaFile file;
    file.ledger = ledger;
    error = pathProblem(path);
    if (error.empty()) {
        error = openDemuxer(file, path);
    }
    if (error.empty()) {
        error = openDecoders(file, threads);
    }
    return error.empty() ? std::move(file) : MediaFile{};
}

std::string decodeMedia(MediaFile &file, const Deliver &deliver) {
    const std::unique_ptr<AVPacket, PacketDeleter> packet(av_packet_alloc());
    Run run{file, deliver, Media(av_frame_alloc())};
    if (packet == nullptr || run.media == nullptr) {
        return libavError(AVERROR(ENOMEM));
    }
    int readError = 0;
    while (!run.ended && (readError = av_read_frame(file.demuxer.get(), packet.get())) >= 0) {
        const auto stream = static_cast<std::size_t>(packet->stream_index);
        if (stream < file.decoders.size() && file.decoders[stream] != nullptr) {
            decodePacket(run, stream, packet.get());
        }
        av_packet_unref(packet.get());
    }
    for (std::size_t stream = 0; stream < file.decoders.size() && !run.ended; ++stream) {
        if (file.decoders[stream] != nullptr) {
            decodePacket(run, stream, nullptr);
        }
    }
    return errorText(run, readError);
}

bool hasPictures(const MediaFile &file, std::size_t stream) {
    return file.decoders[stream]->codec_type == AVMEDIA_TYPE_VIDEO;
}
