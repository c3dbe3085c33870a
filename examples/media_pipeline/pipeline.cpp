#include "pipeline.h"

#include "frame_buffers.h"
#include "media_file.h"
#include "queue.h"
#include "shared_frame.h"

#include <atomic>
#include <future>
#include <thread>

namespace {

// Frames that may wait for a thread: enough for it never to starve, few enough to stay in the caches.
constexpr std::size_t kQueueLength = 8;

struct Pipeline {
    FrameLedger ledger; // before the file, whose decoders hold frames to their end
    MediaFile file;
    Queue<SharedFrame> pictures{kQueueLength};
    Queue<SharedFrame> samples{kQueueLength};
    Queue<SharedFrame> everything{kQueueLength};
    PipelineResult result; // each stage writes fields of its own
    std::atomic<uint64_t> delivered = 0;
    std::atomic<double> position = 0; // seconds into the file
};

// Gives an output of the decoder to those who wait for it. False if there is no memory.
bool passOn(Pipeline &pipeline, const AVFrame *media, std::size_t stream) {
    PDFRAME const frame = frameBuffersFind(pipeline.ledger, media);
    SharedFrame worker;
    SharedFrame sink;
    if (!shareFrame(worker, media, frame, stream) || !shareFrame(sink, media, frame, stream)) {
        return false;
    }
    if (media->best_effort_timestamp != AV_NOPTS_VALUE) {
        const AVRational unit = pipeline.file.demuxer->streams[stream]->time_base;
        pipeline.position = static_cast<double>(media->best_effort_timestamp) * av_q2d(unit);
    }
    ++pipeline.delivered;
    (hasPictures(pipeline.file, stream) ? pipeline.pictures : pipeline.samples).push(std::move(worker));
    pipeline.everything.push(std::move(sink));
    return true;
}

void decodeStage(Pipeline &pipeline) {
    bool shared = true;
    const auto deliver = [&](const AVFrame *media, std::size_t stream) {
        shared = passOn(pipeline, media, stream);
        return shared;
    };
    pipeline.result.error = decodeMedia(pipeline.file, deliver);
    if (!shared) {
        pipeline.result.error = "a frame could not be shared";
    }
    pipeline.pictures.close();
    pipeline.samples.close();
    pipeline.everything.close();
}

void pictureStage(Pipeline &pipeline) {
    while (const auto share = pipeline.pictures.pop()) {
        addPicture(pipeline.result.streams[share->stream].brightness, share->media.get());
    }
}

void sampleStage(Pipeline &pipeline) {
    while (const auto share = pipeline.samples.pop()) {
        addSamples(pipeline.result.streams[share->stream].level, share->media.get());
    }
}

void sinkStage(Pipeline &pipeline, const Hash &hash) {
    while (const auto share = pipeline.everything.pop()) {
        StreamResult &stream = pipeline.result.streams[share->stream];
        stream.records.push_back(recordFrame(hash, share->media.get(), stream.pictures));
        stream.samples += static_cast<uint64_t>(share->media->nb_samples);
        stream.placed += share->frame != nullptr ? 1 : 0;
    }
}

void describeStreams(Pipeline &pipeline) {
    for (std::size_t i = 0; i < pipeline.file.decoders.size(); ++i) {
        StreamResult stream;
        const Decoder &decoder = pipeline.file.decoders[i];
        if (decoder != nullptr) {
            stream.decoded = true;
            stream.pictures = hasPictures(pipeline.file, i);
            stream.codec = avcodec_get_name(decoder->codec_id);
        }
        pipeline.result.streams.push_back(std::move(stream));
    }
}

std::string progressText(Pipeline &pipeline) {
    const int64_t duration = pipeline.file.demuxer->duration;
    char text[80];
    std::snprintf(text, sizeof text, "decoding  %.1f of %.1f s  %llu pictures and blocks  %zu frames alive",
                  pipeline.position.load(), duration > 0 ? static_cast<double>(duration) / AV_TIME_BASE : 0.0,
                  static_cast<unsigned long long>(pipeline.delivered.load()), ledgerFigures(pipeline.ledger).alive);
    return text;
}

// Runs the stages to their end.
void runStages(Pipeline &pipeline, Progress &progress) {
    const Hash hash = makeHash();
    std::promise<void> ended;
    std::future<void> end = ended.get_future();
    const std::jthread brightness([&] { pictureStage(pipeline); });
    const std::jthread level([&] { sampleStage(pipeline); });
    const std::jthread sink([&] {
        sinkStage(pipeline, hash);
        ended.set_value();
    });
    const std::jthread decoder([&] { decodeStage(pipeline); });
    while (end.wait_for(kProgressInterval) != std::future_status::ready) {
        progressShow(progress, progressText(pipeline));
    }
}

} // namespace

PipelineResult runPipeline(const std::string &path, int threads, Progress &progress) {
    Pipeline pipeline;
    pipeline.file = openMedia(path, threads, &pipeline.ledger, pipeline.result.error);
    if (pipeline.file.demuxer == nullptr) {
        pipeline.result.frames = ledgerFigures(pipeline.ledger);
        return std::move(pipeline.result);
    }
    pipeline.result.opened = true;
    describeStreams(pipeline);
    const auto start = std::chrono::steady_clock::now();
    runStages(pipeline, progress);
    pipeline.result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    pipeline.file = {}; // the decoders let go of the pictures that they refer to
    pipeline.result.frames = ledgerFigures(pipeline.ledger);
    progressErase(progress);
    return std::move(pipeline.result);
}

uint64_t countRecords(const PipelineResult &result, bool pictures) {
    uint64_t count = 0;
    for (const StreamResult &stream : result.streams) {
        count += stream.pictures == pictures ? stream.records.size() : 0;
    }
    return count;
}
