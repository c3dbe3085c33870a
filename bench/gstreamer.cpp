// GStreamer's frames: a buffer of a pool, with a header added as a meta that the pool keeps.
#include "gstreamer.h"

#include "frame_life.h"

#include <gst/gst.h>

#include <cstdlib>

namespace {

// What is added to each buffer of the pool, once. The header is cleared for each frame; the data pointer, which never
// changes in a buffer of this pool, is kept beside it.
struct HeaderMeta {
    GstMeta meta;
    char header[kHeader];
    void *data;
};

gboolean headerInit(GstMeta *meta, gpointer, GstBuffer *) {
    meta->flags =
        static_cast<GstMetaFlags>(meta->flags | GST_META_FLAG_POOLED); // stays on the buffer when it goes back
    reinterpret_cast<HeaderMeta *>(meta)->data = nullptr;
    return TRUE;
}

const GstMetaInfo *headerInfo() {
    static const gchar *tags[] = {nullptr};
    static const GstMetaInfo *const info =
        gst_meta_register(gst_meta_api_type_register("BenchHeaderAPI", tags), "BenchHeader", sizeof(HeaderMeta),
                          headerInit, nullptr, nullptr);
    return info;
}

HeaderMeta *headerOf(GstBuffer *buffer) {
    return reinterpret_cast<HeaderMeta *>(gst_buffer_get_meta(buffer, headerInfo()->api));
}

// The pool and the buffer that all threads share. The first thread makes them in front of the loop, and ends them
// behind.
GstBufferPool *pool = nullptr;
GstBuffer *source = nullptr;
constexpr guint kPooled = 2; // a buffer for each thread

GstBuffer *acquire() {
    GstBuffer *buffer = nullptr;
    return gst_buffer_pool_acquire_buffer(pool, &buffer, nullptr) == GST_FLOW_OK ? buffer : nullptr;
}

bool addHeader(GstBuffer *buffer) {
    GstMapInfo map;
    auto *const header = reinterpret_cast<HeaderMeta *>(gst_buffer_add_meta(buffer, headerInfo(), nullptr));
    if (header == nullptr || gst_buffer_map(buffer, &map, GST_MAP_WRITE) == FALSE) {
        return false;
    }
    header->data = map.data;
    gst_buffer_unmap(buffer, &map);
    return true;
}

// Both buffers get their header, and are found to keep it.
bool preparePool() {
    GstBuffer *const first = acquire();
    GstBuffer *const second = acquire();
    if (first == nullptr || second == nullptr || !addHeader(first) || !addHeader(second)) {
        return false;
    }
    gst_buffer_unref(first);
    gst_buffer_unref(second);
    GstBuffer *const again = acquire();
    const bool kept = (again == first || again == second) && headerOf(again) != nullptr;
    gst_buffer_unref(again);
    return kept;
}

bool poolBegin(int64_t size) {
    pool = gst_buffer_pool_new();
    GstStructure *const config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, nullptr, static_cast<guint>(size), kPooled, 0);
    return gst_buffer_pool_set_config(pool, config) != FALSE && gst_buffer_pool_set_active(pool, TRUE) != FALSE &&
           preparePool();
}

void poolEnd() {
    gst_buffer_pool_set_active(pool, FALSE);
    gst_object_unref(pool);
}

void touchKept(GstBuffer *, HeaderMeta *header, std::size_t size) { touch(header->data, size); }

void touchMapped(GstBuffer *buffer, HeaderMeta *, std::size_t) {
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    touch(map.data, map.size);
    gst_buffer_unmap(buffer, &map);
}

template <class Touch> void life(benchmark::State &state, int64_t size, Touch touchData) {
    if (state.thread_index() == 0 && !poolBegin(size)) {
        state.SkipWithError("the pool doesn't keep its buffers");
    }
    for ([[maybe_unused]] auto _ : state) {
        GstBuffer *const buffer = acquire();
        HeaderMeta *const header = buffer != nullptr ? headerOf(buffer) : nullptr;
        if (header == nullptr) {
            state.SkipWithError("no buffer with a header");
            break;
        }
        std::memset(header->header, 0, sizeof header->header);
        touchData(buffer, header, static_cast<std::size_t>(size));
        gst_buffer_unref(buffer);
    }
    if (state.thread_index() == 0) {
        poolEnd();
    }
}

GstBuffer *filledBuffer(int64_t size) {
    GstBuffer *const buffer = gst_buffer_new_allocate(nullptr, static_cast<gsize>(size), nullptr);
    gst_buffer_memset(buffer, 0, 1, static_cast<gsize>(size));
    return buffer;
}

void begin(const benchmark::State &state) {
    if (state.thread_index() == 0) {
        source = filledBuffer(kPicture);
    }
}

void end(const benchmark::State &state) {
    if (state.thread_index() == 0) {
        gst_buffer_unref(source);
    }
}

void share(benchmark::State &state) {
    begin(state);
    bool shared = true;
    for ([[maybe_unused]] auto _ : state) {
        GstBuffer *const second = gst_buffer_copy(source);
        shared = shared && second != source && gst_buffer_peek_memory(second, 0) == gst_buffer_peek_memory(source, 0);
        gst_buffer_unref(second);
    }
    end(state);
    if (!shared) {
        state.SkipWithError("the second buffer has other data");
    }
}

void addref(benchmark::State &state) {
    begin(state);
    for ([[maybe_unused]] auto _ : state) {
        GstBuffer *const second = gst_buffer_ref(source);
        benchmark::DoNotOptimize(second);
        gst_buffer_unref(second);
    }
    end(state);
}

void copy(benchmark::State &state, int64_t size) {
    GstBuffer *const from = filledBuffer(size);
    bool copied = true;
    for ([[maybe_unused]] auto _ : state) {
        GstBuffer *const to = gst_buffer_copy_deep(from);
        copied = copied && gst_buffer_peek_memory(to, 0) != gst_buffer_peek_memory(from, 0);
        gst_buffer_unref(to);
    }
    gst_buffer_unref(from);
    if (!copied) {
        state.SkipWithError("the copy has the same data");
    }
}

FRAME_LIFE("gstreamer_pool", life, touchKept);
FRAME_LIFE("gstreamer_pool_mapped", life, touchMapped);
BENCHMARK(share)->Name("share/gst_buffer_copy")->Apply(onOneAndTwoThreads);
BENCHMARK(addref)->Name("addref/gst_buffer_ref")->Apply(onOneAndTwoThreads);
BENCHMARK_CAPTURE(copy, small, kPicture)->Name("copy_3mb/gst_buffer_copy_deep");
BENCHMARK_CAPTURE(copy, large, kLargePicture)->Name("copy_12mb/gst_buffer_copy_deep");

} // namespace

std::string gstreamerStart() {
    static const std::string version = [] {
        setenv("GST_REGISTRY_DISABLE", "yes", 1); // NOLINT(concurrency-mt-unsafe): a static's initialisation
        gst_init(nullptr, nullptr);
        gchar *const text = gst_version_string();
        std::string copied = text;
        g_free(text);
        return copied;
    }();
    return version;
}
