// FFmpeg's frames: AVFrame, its own small header, over buffers from a pool or from its allocator.
#include "frame_life.h"

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
}

namespace {

// The pool and the frame that all threads share. The first thread makes them in front of the loop, and ends them
// behind.
AVBufferPool *pool = nullptr;
AVFrame *source = nullptr;

// A frame with a picture of that many bytes, or with sound.
AVFrame *describedFrame(int64_t size) {
    AVFrame *const frame = av_frame_alloc();
    if (frame == nullptr) {
        return nullptr;
    }
    if (size == kSound) {
        frame->format = AV_SAMPLE_FMT_S16;
        frame->nb_samples = 1024;
        av_channel_layout_default(&frame->ch_layout, 2);
    } else {
        const int scale = size == kLargePicture ? 2 : 1;
        frame->format = AV_PIX_FMT_YUV420P;
        frame->width = kPictureWidth * scale;
        frame->height = kPictureHeight * scale;
    }
    return frame;
}

// The same with data; null if there is none, or not as much.
AVFrame *wholeFrame(int64_t size) {
    AVFrame *frame = describedFrame(size);
    if (frame != nullptr &&
        (av_frame_get_buffer(frame, 0) != 0 || frame->buf[0]->size < static_cast<std::size_t>(size))) {
        av_frame_free(&frame);
    }
    return frame;
}

// A buffer that is given back is the next one to be had.
bool poolWorks() {
    AVBufferRef *buffer = av_buffer_pool_get(pool);
    const uint8_t *const first = buffer != nullptr ? buffer->data : nullptr;
    av_buffer_unref(&buffer);
    buffer = av_buffer_pool_get(pool);
    const bool same = buffer != nullptr && buffer->data == first;
    av_buffer_unref(&buffer);
    return same;
}

void lifePool(benchmark::State &state, int64_t size) {
    const auto bytes = static_cast<std::size_t>(size);
    if (state.thread_index() == 0) {
        pool = av_buffer_pool_init(bytes, nullptr);
        if (!poolWorks()) {
            state.SkipWithError("the pool doesn't keep its buffers");
        }
    }
    for ([[maybe_unused]] auto _ : state) {
        AVFrame *frame = av_frame_alloc();
        AVBufferRef *const buffer = av_buffer_pool_get(pool);
        if (frame == nullptr || buffer == nullptr) {
            state.SkipWithError(kNoMemory);
            break;
        }
        frame->buf[0] = buffer;
        frame->data[0] = buffer->data;
        touch(frame->data[0], bytes);
        av_frame_free(&frame);
    }
    if (state.thread_index() == 0) {
        av_buffer_pool_uninit(&pool);
    }
}

void lifeBuffer(benchmark::State &state, int64_t size) {
    for ([[maybe_unused]] auto _ : state) {
        AVFrame *frame = wholeFrame(size);
        if (frame == nullptr) {
            state.SkipWithError(kNoMemory);
            break;
        }
        touch(frame->data[0], static_cast<std::size_t>(size));
        av_frame_free(&frame);
    }
}

void begin(benchmark::State &state) {
    if (state.thread_index() == 0) {
        source = wholeFrame(kPicture);
        if (source == nullptr) {
            state.SkipWithError(kNoMemory);
        }
    }
}

void end(const benchmark::State &state) {
    if (state.thread_index() == 0) {
        av_frame_free(&source);
    }
}

// Into a frame that is there.
void shareRef(benchmark::State &state) {
    begin(state);
    AVFrame *second = av_frame_alloc();
    bool shared = second != nullptr;
    for ([[maybe_unused]] auto _ : state) {
        shared = shared && av_frame_ref(second, source) == 0 && second->data[0] == source->data[0];
        av_frame_unref(second);
    }
    av_frame_free(&second);
    end(state);
    if (!shared) {
        state.SkipWithError(kNoMemory);
    }
}

// Into a new one.
void shareClone(benchmark::State &state) {
    begin(state);
    bool shared = true;
    for ([[maybe_unused]] auto _ : state) {
        AVFrame *second = av_frame_clone(source);
        shared = shared && second != nullptr && second->data[0] == source->data[0];
        av_frame_free(&second);
    }
    end(state);
    if (!shared) {
        state.SkipWithError(kNoMemory);
    }
}

void addref(benchmark::State &state) {
    begin(state);
    bool shared = true;
    for ([[maybe_unused]] auto _ : state) {
        AVBufferRef *second = av_buffer_ref(source->buf[0]);
        shared = shared && second != nullptr && second->data == source->buf[0]->data;
        av_buffer_unref(&second);
    }
    end(state);
    if (!shared) {
        state.SkipWithError(kNoMemory);
    }
}

// The bytes of a frame into another one, which is warm.
void copy(benchmark::State &state, int64_t size) {
    AVFrame *from = wholeFrame(size);
    AVFrame *to = wholeFrame(size);
    bool copied = from != nullptr && to != nullptr && from->data[0] != to->data[0];
    if (copied) {
        std::memset(from->buf[0]->data, 1, from->buf[0]->size);
        std::memset(to->buf[0]->data, 2, to->buf[0]->size);
    }
    for ([[maybe_unused]] auto _ : state) {
        copied = copied && av_frame_copy(to, from) == 0;
        benchmark::ClobberMemory();
    }
    copied = copied && to->data[0][0] == 1 && to->data[2][0] == 1;
    av_frame_free(&from);
    av_frame_free(&to);
    if (!copied) {
        state.SkipWithError("not copied");
    }
}

FRAME_LIFE("ffmpeg_pool", lifePool);
FRAME_LIFE("ffmpeg_get_buffer", lifeBuffer);
BENCHMARK(shareRef)->Name("share/av_frame_ref")->Apply(onOneAndTwoThreads);
BENCHMARK(shareClone)->Name("share/av_frame_clone")->Apply(onOneAndTwoThreads);
BENCHMARK(addref)->Name("addref/av_buffer_ref")->Apply(onOneAndTwoThreads);
BENCHMARK_CAPTURE(copy, small, kPicture)->Name("copy_3mb/av_frame_copy");
BENCHMARK_CAPTURE(copy, large, kLargePicture)->Name("copy_12mb/av_frame_copy");

} // namespace
