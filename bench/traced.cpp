// brenvole_bench_traced WORK COUNT FILE: works on one of COUNT live allocations again and again, and prints how many
// events that were and the nanoseconds of each. Who traces it is up to its environment.
#include "util/qxutil.h"

#include <brenvole/dframe.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <mcheck.h>

namespace {

constexpr int64_t kSmallData = 4096;
constexpr int64_t kPool = 256 << 20;
constexpr double kWarmUp = 5e6;   // ns
constexpr double kMeasure = 40e6; // ns
constexpr int kBatch = 32;        // rounds between two looks at the clock

// Real time: a tool may let the program wait for another process of its own.
double now() {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::nano>(time).count();
}

struct Result {
    double events;
    double ns; // of each
};

// Runs rounds for some time.
template <class Round> Result measure(double time, int eventsOfRound, Round &&round) {
    const double begin = now();
    double events = 0;
    double end = begin;
    for (; end - begin < time; end = now()) {
        for (int i = 0; i < kBatch; ++i) {
            round();
        }
        events += kBatch * eventsOfRound;
    }
    return {events, (end - begin) / events};
}

// Does `round` to one of so many things, which `make` makes.
template <class Make, class Round> Result rounds(std::size_t count, int eventsOfRound, Make make, Round round) {
    std::mt19937 random{1};
    std::vector<decltype(make())> things(count);
    for (auto &thing : things) {
        thing = make();
    }
    const auto roundOfOne = [&] { round(things[random() % count]); };
    measure(kWarmUp, eventsOfRound, roundOfOne);
    return measure(kMeasure, eventsOfRound, roundOfOne);
}

uint64_t run(uint32_t command, PDFRAME &frame, int64_t size = 0, uint32_t record = 0) {
    const uint64_t refused = DFrameMem(command, size, record, &frame);
    if (refused != 0) {
        std::exit(EXIT_FAILURE); // NOLINT(concurrency-mt-unsafe): there is one thread
    }
    return refused;
}

PDFRAME makeFrame() {
    PDFRAME frame = nullptr;
    run(DFRAME_ALLOC, frame, kSmallData, DFRAME_SIZE);
    return frame;
}

// A frame's events: two calls, and two each of its header and its data.
constexpr int kFrameEvents = 6;
constexpr int kAllocations = 2; // header and data

Result replaceFrames(std::size_t count) {
    return rounds(count / kAllocations, kFrameEvents, makeFrame, [](PDFRAME &frame) {
        run(DFRAME_FREE, frame);
        frame = makeFrame();
    });
}

// One more reference, and dropped again.
Result referenceFrames(std::size_t count) {
    return rounds(count / kAllocations, kFrameEvents, makeFrame, [](PDFRAME &frame) {
        PDFRAME second = frame;
        run(DFRAME_ADDREF, second);
        run(DFRAME_FREE, second);
    });
}

Result replaceBlocks(std::size_t count) {
    constexpr int kEvents = 2;
    const auto make = [] { return std::malloc(kSmallData); };
    return rounds(count, kEvents, make, [make](void *&block) {
        std::free(block);
        block = make();
    });
}

Result resultOf(const std::string &work, std::size_t count) {
    if (work == "blocks") {
        return replaceBlocks(count);
    }
    qxSetLogSink([](uint32_t, const char *, void *) {}, nullptr); // the frames that are left at the end
    DFrameMem(DFRAME_RESET, kPool, 0, nullptr);
    return work == "frames" ? replaceFrames(count) : referenceFrames(count);
}

// The profile that has grown, into the file, if the allocator that keeps one is there.
bool dumpProfile(const char *file) {
    auto *const control = reinterpret_cast<int (*)(const char *, void *, std::size_t *, void *, std::size_t)>(
        dlsym(RTLD_DEFAULT, "mallctl"));
    return control == nullptr || control("prof.dump", nullptr, nullptr, static_cast<void *>(&file), sizeof file) == 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 4) {
        return EXIT_FAILURE;
    }
    if (std::getenv("MALLOC_TRACE") != nullptr) { // NOLINT(concurrency-mt-unsafe): there is one thread
        mtrace();                                 // NOLINT(concurrency-mt-unsafe)
    }
    const Result result = resultOf(argv[1], std::stoul(argv[2]));
    if (!dumpProfile(argv[3])) {
        return EXIT_FAILURE;
    }
    std::printf("measured %.0f %.3f\n", result.events, result.ns);
    return EXIT_SUCCESS;
}
