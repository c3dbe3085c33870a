#include "pipeline.h"

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
bool passOn(Pipeline &pipeline, const std::shared_ptr<const Media> &media) {
    const MediaStream &stream = pipeline.file.streams[media->stream];
    const bool edits = media->frame != nullptr && stream.pictures;
    SharedFrame worker;
    SharedFrame sink;
    SharedFrame editor;
    if (!shareFrame(worker, media) || !shareFrame(sink, media) || (edits && !shareFrame(editor, media))) {
        return false;
    }
    if (media->time != kNoTime) {
        pipeline.position = static_cast<double>(media->time) * stream.unit;
    }
    ++pipeline.delivered;
    (stream.pictures ? pipeline.pictures : pipeline.samples).push(std::move(worker));
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
        const std::string error = decodeMedia(pipeline.file, [&](const std::shared_ptr<const Media> &media) {
            shared = passOn(pipeline, media);
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
            take(*share, pipeline.result.streams[share->media->stream]);
        }
    } catch (const std::exception &problem) {
        noteError(pipeline, problem.what());
        while (input.pop()) {
        }
    }
}

void pictureStage(Pipeline &pipeline) {
    takeStage(pipeline, pipeline.pictures,
              [](const SharedFrame &share, StreamResult &stream) { addPicture(stream.brightness, *share.media); });
}

void editStage(Pipeline &pipeline) {
    takeStage(pipeline, pipeline.edits,
              [&](const SharedFrame &share, StreamResult &) { editPicture(pipeline.result.edits, share); });
}

void sampleStage(Pipeline &pipeline) {
    takeStage(pipeline, pipeline.samples,
              [](const SharedFrame &share, StreamResult &stream) { addSamples(stream.level, *share.media); });
}

void sinkStage(Pipeline &pipeline) {
    takeStage(pipeline, pipeline.everything, [&](const SharedFrame &share, StreamResult &stream) {
        stream.records.push_back(recordFrame(*share.media));
        stream.samples += static_cast<uint64_t>(share.media->samples);
        stream.placed += share.frame != nullptr ? 1 : 0;
    });
}

std::string progressText(Pipeline &pipeline) {
    const double duration = pipeline.file.seconds;
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
    std::promise<void> ended;
    std::future<void> end = ended.get_future();
    std::array<std::jthread, 5> stages; // joined after the closer has gone
    const QueuesCloser closer{pipeline};
    stages[0] = std::jthread([&] { pictureStage(pipeline); });
    stages[1] = std::jthread([&] { sampleStage(pipeline); });
    stages[2] = std::jthread([&] { editStage(pipeline); });
    stages[3] = std::jthread([&] {
        sinkStage(pipeline);
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
    if (pipeline.file.source == nullptr) {
        pipeline.result.frames = ledgerFigures(pipeline.ledger);
        return std::move(pipeline.result);
    }
    pipeline.result.opened = true;
    for (const MediaStream &stream : pipeline.file.streams) {
        pipeline.result.streams.emplace_back().about = stream;
    }
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
        count += stream.about.pictures == pictures ? stream.records.size() : 0;
    }
    return count;
}
