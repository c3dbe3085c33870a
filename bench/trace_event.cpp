// What an event costs under a trace, by how many allocations are alive: ours, and tools that watch `malloc`. Each
// side runs in a child of its own, started anew for each repetition, since such a tool watches a whole process.
#include "child.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr const char *kFile = "FILE"; // stands for the file's name in a side's arguments

// One side, and how its child is started.
struct Tracer {
    const char *work;                        // what the child does
    std::string program = BENCH_TRACED;      // or a tool's own front end
    std::vector<std::string> arguments = {}; // in front of the child's own
    std::vector<std::string> settings = {};  // of its environment; the file's name follows the last one
    bool told = true;                        // each event takes more than a byte or two of the file
};

// The file that the child writes, and others whose names begin with that.
std::filesystem::path fileOfRun() {
    return std::filesystem::temp_directory_path() / ("brenvole_bench_" + std::to_string(getpid()));
}

// Takes the files away, and tells how long they were.
double removeFiles(const std::filesystem::path &file) {
    double length = 0;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(file.parent_path(), error)) {
        if (entry.path().string().starts_with(file.string())) {
            length += static_cast<double>(std::filesystem::file_size(entry.path(), error));
            std::filesystem::remove(entry.path(), error);
        }
    }
    return length;
}

// Events and nanoseconds for each, as the child prints them, maybe between words of a tool's.
bool readResult(const ChildResult &child, double &events, double &ns) {
    const std::string mark = "measured ";
    const std::size_t at = child.output.find(mark);
    if (!child.whole || at == std::string::npos) {
        return false;
    }
    const char *const end = child.output.data() + child.output.size();
    const auto first = std::from_chars(child.output.data() + at + mark.size(), end, events);
    return first.ptr != end && std::from_chars(first.ptr + 1, end, ns).ec == std::errc();
}

ChildResult runTraced(Tracer tracer, int64_t count, const std::string &file) {
    if (!tracer.settings.empty()) {
        tracer.settings.back() += file;
    }
    std::replace(tracer.arguments.begin(), tracer.arguments.end(), std::string(kFile), file);
    tracer.arguments.insert(tracer.arguments.end(), {tracer.work, std::to_string(count), file});
    return childRun(tracer.program, tracer.arguments, tracer.settings);
}

void event(benchmark::State &state, const Tracer &tracer) {
    const std::filesystem::path file = fileOfRun();
    double events = 0;
    double ns = 0;
    const bool ran = readResult(runTraced(tracer, state.range(0), file.string()), events, ns);
    const bool traced = removeFiles(file) > (tracer.told ? 2 * events : 0);
    for ([[maybe_unused]] auto _ : state) {
        state.SetIterationTime(ns / 1e9);
    }
    if (!ran || !traced) {
        state.SkipWithError(ran ? "nothing was traced" : "the child has failed");
    }
}

const std::vector<std::string> kOurTrace = {"QXBRENVOLE_TRACE=1", "QXBRENVOLE_TRACE_FILE="};

// The child does as many events as it has time for.
void byAlive(benchmark::internal::Benchmark *work) {
    work->Arg(100)->Arg(1000)->Arg(10000)->Iterations(1)->UseManualTime();
}

BENCHMARK_CAPTURE(event, ours, {.work = "frames", .settings = kOurTrace})->Name("trace_event/ours")->Apply(byAlive);
// As its front end runs it, which packs what comes through a pipe; and straight into a file.
BENCHMARK_CAPTURE(
    event, heaptrack,
    {.work = "blocks", .program = BENCH_HEAPTRACK, .arguments = {"--raw", "-o", kFile, BENCH_TRACED}, .told = false})
    ->Name("trace_event/heaptrack")
    ->Apply(byAlive);
BENCHMARK_CAPTURE(event, heaptrackFile,
                  {.work = "blocks", .settings = {"LD_PRELOAD=" BENCH_HEAPTRACK_PRELOAD, "DUMP_HEAPTRACK_OUTPUT="}})
    ->Name("trace_event/heaptrack_file")
    ->Apply(byAlive);
BENCHMARK_CAPTURE(event, mtrace,
                  {.work = "blocks", .settings = {"LD_PRELOAD=libc_malloc_debug.so.0", "MALLOC_TRACE="}})
    ->Name("trace_event/mtrace")
    ->Apply(byAlive);
// Its file holds sums, and comes at the end.
BENCHMARK_CAPTURE(event, jemalloc,
                  {.work = "blocks",
                   .settings = {"LD_PRELOAD=libjemalloc.so.2", "MALLOC_CONF=prof:true,lg_prof_sample:0,prof_prefix:"},
                   .told = false})
    ->Name("trace_event/jemalloc_profile")
    ->Apply(byAlive);
BENCHMARK_CAPTURE(event, references, {.work = "references", .settings = kOurTrace})
    ->Name("trace_event_reference/ours")
    ->Apply(byAlive);

} // namespace
