// What the trace costs while it is off, beside a library that was built without the calls to it. The libraries are
// loaded side by side.
#include <brenvole/dframe.h>

#include <benchmark/benchmark.h>

#include <cstddef>

#include <dlfcn.h>

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

} // namespace
