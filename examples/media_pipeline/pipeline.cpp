#include "pipeline.h"

#include "frame_buffers.h"
#include "media_file.h"
#include "queue.h"
#include "shared_frame.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <exception>
#include <future>
#include <mutex>
#include <thread>

namespace {

// Frames that may wait for a thread: enough for it never to starve, few enough to stay in the caches.
constexpr std::size_t kQueueLength = 8;

struct Pipeline {
    FrameLedger ledger; // before the file, whose decoders hold frames to their end
    MediaFile file;
    Queue<SharedFrame> pictures{kQueueLength};
    Queue<SharedFrame> edits{kQueueLength};
    Queue<SharedFrame> samples{kQueueLength};
    Queue<SharedFrame> everything{kQueueLength};
    PipelineResult result; // each stage writes fields of its own, and the error under its lock
    std::mutex errorLock;
    std::atomic<uint64_t> delivered = 0;
    std::atomic<double> position = 0; // seconds into the file
};

// Gives an output of the decoder to those who wait for it. False if there is no memory.
bool passOn(Pipeline &pipeline, const AVFrame *media, std::size_t stream) {
    PDFRAME const frame = frameBuffersFind(pipeline.ledger, media);
    const bool edits = frame != nullptr && hasPictures(pipeline.file, stream);
    SharedFrame worker;
    SharedFrame sink;
    SharedFrame editor;
    if (!shareFrame(worker, media, frame, stream) || !shareFrame(sink, media, frame, stream) ||
        (edits && !shareFrame(editor, media, frame, stream))) {
        return false;
    }
    if (media->best_effort_timestamp != AV_NOPTS_VALUE) {
        const AVRational unit = pipeline.file.demuxer->streams[stream]->time_base;
        pipeline.position = static_cast<double>(media->best_effort_timestamp) * av_q2d(unit);
    }
    ++pipeline.delivered;
    (hasPictures(pipeline.file, stream) ? pipeline.pictures : pipeline.samples).push(std::move(worker));
    pipeline.everything.push(std::move(sink));
    if (edits) {
        pipeline.edits.push(std::move(editor));
    }
    return true;
}

// The first error stays.
void noteError(Pipeline &pipeline, const std::string &text) {
    const std::lock_guard hold(pipeline.errorLock);
    if (pipeline.result.error.empty()) {
        pipeline.result.error = text;
    }
}

void closeQueues(Pipeline &pipeline) {
    pipeline.pictures.close();
    pipeline.edits.close();
    pipeline.samples.close();
    pipeline.everything.close();
}

void decodeStage(Pipeline &pipeline) {
    bool shared = true;
    try {
        const std::string error = decodeMedia(pipeline.file, [&](const AVFrame *media, std::size_t stream) {
            shared = passOn(pipeline, media, stream);
            return shared;
        });
        noteError(pipeline, shared ? error : "a frame could not be shared");
    } catch (const std::exception &problem) { // want of memory
        noteError(pipeline, problem.what());
    }
    closeQueues(pipeline);
}

// A stage behind the decoder. It empties its queue even after an error, so that the decoder never waits for it.
template <class Take> void takeStage(Pipeline &pipeline, Queue<SharedFrame> &input, const Take &take) {
    try {
        while (const auto share = input.pop()) {
            take(*share, pipeline.result.streams[share->stream]);
        }
    } catch (const std::exception &problem) {
        noteError(pipeline, problem.what());
        while (input.pop()) {
        }
    }
}

void pictureStage(Pipeline &pipeline) {
    takeStage(pipeline, pipeline.pictures, [](const SharedFrame &share, StreamResult &stream) {
        addPicture(stream.brightness, share.media.get());
    });
}

void editStage(Pipeline &pipeline) {
    takeStage(pipeline, pipeline.edits,
              [&](const SharedFrame &share, StreamResult &) { editPicture(pipeline.result.edits, share); });
}

void sampleStage(Pipeline &pipeline) {
    takeStage(pipeline, pipeline.samples,
              [](const SharedFrame &share, StreamResult &stream) { addSamples(stream.level, share.media.get()); });
}

void sinkStage(Pipeline &pipeline, const Hash &hash) {
    takeStage(pipeline, pipeline.everything, [&](const SharedFrame &share, StreamResult &stream) {
        stream.records.push_back(recordFrame(hash, share.media.get(), stream.pictures));
        stream.samples += static_cast<uint64_t>(share.media->nb_samples);
        stream.placed += share.frame != nullptr ? 1 : 0;
    });
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
    const auto duration = static_cast<double>(pipeline.file.demuxer->duration) / AV_TIME_BASE; // not above 0: unknown
    const LedgerFigures frames = ledgerFigures(pipeline.ledger);
    const PoolFigures pool = framePoolFigures();
    const auto megabytes = [](uint64_t bytes) { return static_cast<double>(bytes) / 1e6; };
    char text[160];
    char length[30] = "";
    if (duration > 0) {
        std::snprintf(length, sizeof length, " of %.1f", duration);
    }
    std::snprintf(text, sizeof text, "%.1f%s s  %llu decoded  %zu frames alive, %.1f MB", pipeline.position.load(),
                  length, static_cast<unsigned long long>(pipeline.delivered.load()), frames.alive,
                  megabytes(frames.bytesAlive));
    std::string line = text;
    if (pool.total != 0) {
        std::snprintf(text, sizeof text, "  pool %.1f of %.1f MB, %.1f in one piece", megabytes(pool.used),
                      megabytes(pool.total), megabytes(pool.largestFree));
        line += text;
    }
    return line;
}

// Lets the threads that have started come to their end, also if the next one could not start.
struct QueuesCloser {
    Pipeline &pipeline;
    ~QueuesCloser() { closeQueues(pipeline); }
};

// Runs the stages to their end.
void runStages(Pipeline &pipeline, Progress &progress) {
    const Hash hash = makeHash();
    std::promise<void> ended;
    std::future<void> end = ended.get_future();
    std::array<std::jthread, 5> stages; // joined after the closer has gone
    const QueuesCloser closer{pipeline};
    stages[0] = std::jthread([&] { pictureStage(pipeline); });
    stages[1] = std::jthread([&] { sampleStage(pipeline); });
    stages[2] = std::jthread([&] { editStage(pipeline); });
    stages[3] = std::jthread([&] {
        sinkStage(pipeline, hash);
        ended.set_value();
    });
    stages[4] = std::jthread([&] { decodeStage(pipeline); }); // last: only it puts anything into the queues
    while (end.wait_for(kProgressInterval) != std::future_status::ready) {
        progressShow(progress, progressText(pipeline));
    }
}

} // namespace

PipelineResult runPipeline(const std::string &path, int threads, bool local, int leak, Progress &progress) {
    Pipeline pipeline;
    pipeline.result.edits.toLose = static_cast<uint64_t>(leak);
    pipeline.ledger.side = local ? DFRAME_FLAG_SYSHEAP : 0;
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
    pipeline.result.pool = framePoolFigures();
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
