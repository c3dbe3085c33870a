/** @file
 *  What every side of a frame's life has to do alike: a header of 8480 bytes, cleared, data of one of two sizes, and
 *  the first bytes of the data written. */
#ifndef BRENVOLE_BENCH_FRAME_LIFE_H
#define BRENVOLE_BENCH_FRAME_LIFE_H

#include "peak.h"

#include <brenvole/dframe.h>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

constexpr std::size_t kHeader = DFRAME_SIZE;
constexpr int kPictureWidth = 1920;
constexpr int kPictureHeight = 1080;
constexpr int64_t kPicture = 3110400;       // 1920 x 1080, 4:2:0
constexpr int64_t kLargePicture = 12441600; // 3840 x 2160, 4:2:0
constexpr int64_t kSound = 4096;            // 1024 samples of two channels, 16 bits each

constexpr const char *kNoMemory = "memory was refused";

/** The first cache line of the data is written; where memory is measured, all of its pages are. */
inline void touch(void *data, std::size_t size) {
    constexpr std::size_t kLine = 64;
    std::memset(data, 1, kLine);
    if (peakMode) [[unlikely]] {
        peakTouch(data, size);
    }
    benchmark::ClobberMemory();
}

/** For BENCHMARK(...)->Apply. */
inline void onOneAndTwoThreads(benchmark::internal::Benchmark *work) { work->Threads(1)->Threads(2); }

/** Enters one side of a frame's life, life(state, bytes of data, ...), for both sizes, on one thread and on two. */
#define FRAME_LIFE(side, life, ...)                                                                                  \
    BENCHMARK_CAPTURE(life, picture, kPicture __VA_OPT__(, ) __VA_ARGS__)                                            \
        ->Name("frame_1080p/" side)                                                                                  \
        ->Apply(onOneAndTwoThreads);                                                                                 \
    BENCHMARK_CAPTURE(life, sound, kSound __VA_OPT__(, ) __VA_ARGS__)                                                \
        ->Name("frame_4096/" side)                                                                                   \
        ->Apply(onOneAndTwoThreads)

#endif
