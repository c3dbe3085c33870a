// What the trace costs: off, beside a library that was built without the calls to it; on, for each event, by how many
// allocations are alive. The libraries are loaded side by side, so that each has a trace of its own.
#include <brenvole/dframe.h>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <unistd.h>

namespace {

constexpr int64_t kSmallData = 4096;
constexpr int64_t kPictureData = 3110400;
constexpr int64_t kPool = 64 << 20;

using Command = decltype(&DFrameMem);

// Never unloaded: it may have the process's fault handler.
Command load(const char *library) {
    void *const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    return handle != nullptr ? reinterpret_cast<Command>(dlsym(handle, "DFrameMem")) : nullptr;
}

void roundTrip(benchmark::State &state, const char *library, uint32_t side) {
    Command const run = load(library);
    if (run == nullptr) {
        state.SkipWithError("the library can't be loaded");
        return;
    }
    uint64_t refused = run(DFRAME_RESET, kPool, 0, nullptr);
    for ([[maybe_unused]] auto _ : state) {
        PDFRAME frame = nullptr;
        refused |= run(DFRAME_ALLOC | side, state.range(0), DFRAME_SIZE, &frame);
        refused |= run(DFRAME_FREE, 0, 0, &frame);
    }
    run(DFRAME_CLOSE, 0, 0, nullptr);
    if (refused != 0) {
        state.SkipWithError("a command was refused");
    }
}

BENCHMARK_CAPTURE(roundTrip, pool, BENCH_LIBRARY, 0)->Name("trace_off_pool/ours")->Arg(kSmallData)->Arg(kPictureData);
BENCHMARK_CAPTURE(roundTrip, poolWithout, BENCH_LIBRARY_UNTRACED, 0)
    ->Name("trace_off_pool/calls_removed")
    ->Arg(kSmallData)
    ->Arg(kPictureData);
BENCHMARK_CAPTURE(roundTrip, local, BENCH_LIBRARY, DFRAME_FLAG_SYSHEAP)
    ->Name("trace_off_local/ours")
    ->Arg(kSmallData)
    ->Arg(kPictureData);
BENCHMARK_CAPTURE(roundTrip, localWithout, BENCH_LIBRARY_UNTRACED, DFRAME_FLAG_SYSHEAP)
    ->Name("trace_off_local/calls_removed")
    ->Arg(kSmallData)
    ->Arg(kPictureData);

// The library whose trace runs, into a file that goes with the process.
Command loadTraced() {
    Command const run = load(BENCH_LIBRARY_TRACED);
    const std::string file =
        std::filesystem::temp_directory_path() / ("brenvole_bench_" + std::to_string(getpid()) + ".csv");
    if (run != nullptr) {
        // The other threads only wait. NOLINTBEGIN(concurrency-mt-unsafe)
        setenv("QXBRENVOLE_TRACE", "1", 1);
        setenv("QXBRENVOLE_TRACE_FILE", file.c_str(), 1);
        run(DFRAME_TOTAL, 0, 0, nullptr);
        unsetenv("QXBRENVOLE_TRACE"); // or the others would turn theirs on
        unsetenv("QXBRENVOLE_TRACE_FILE");
        // NOLINTEND(concurrency-mt-unsafe)
        std::filesystem::remove(file);
    }
    return run;
}

// One event of many: a reference more on each frame in turn, and dropped again.
void event(benchmark::State &state) {
    constexpr int kEvents = 6; // a call each, header and data each
    static Command const run = loadTraced();
    if (run == nullptr) {
        state.SkipWithError("the library can't be loaded");
        return;
    }
    uint64_t refused = run(DFRAME_RESET, kPool, 0, nullptr);
    std::vector<PDFRAME> frames(static_cast<std::size_t>(state.range(0)) / 2); // a header and its data
    for (PDFRAME &frame : frames) {
        refused |= run(DFRAME_ALLOC, kSmallData, DFRAME_SIZE, &frame);
    }
    std::size_t next = 0;
    while (state.KeepRunningBatch(kEvents)) {
        PDFRAME frame = frames[next];
        next = (next + 1) % frames.size();
        refused |= run(DFRAME_ADDREF, 0, 0, &frame);
        refused |= run(DFRAME_FREE, 0, 0, &frame);
    }
    for (PDFRAME &frame : frames) {
        refused |= run(DFRAME_FREE, 0, 0, &frame);
    }
    run(DFRAME_CLOSE, 0, 0, nullptr);
    if (refused != 0) {
        state.SkipWithError("a command was refused");
    }
}

BENCHMARK(event)->Name("trace_on_event/ours")->Arg(100)->Arg(1000)->Arg(10000);

} // namespace
