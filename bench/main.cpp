// brenvole_bench: what the library costs next to the usual ways of doing the same.
//
// All sides of a row are measured in one run, their repetitions in random order, so that a slow phase of the
// machine hits them alike. Nothing here is judged: figures go to a table and, with --json FILE, to a file.
#include "allocators.h"
#include "gstreamer.h"
#include "peak.h"
#include "table.h"

#include "util/qxutil.h"

#include <benchmark/benchmark.h>
#include <boost/version.hpp>
#include <oneapi/tbb/version.h>

extern "C" {
#include <libavutil/avutil.h>
}

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <iostream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Set before the caller's options, which may change any of them. Many short repetitions find a quiet moment of
// the machine sooner than few long ones; the whole run takes some two minutes.
const char *const kDefaults[] = {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=9",
                                 "--benchmark_min_time=0.02", "--benchmark_min_warmup_time=0.01"};

// The options of a child that measures memory: one round is enough, the work's own preparation does the rest.
const char *const kPeakDefaults[] = {"--benchmark_repetitions=1", "--benchmark_min_time=0.000001",
                                     "--benchmark_min_warmup_time=0"};

struct Options {
    std::string jsonPath; // empty: none
    std::vector<std::string> forBenchmark;
};

// False if --json has no file name.
bool readOptions(int argc, char **argv, Options &options) {
    options.forBenchmark.emplace_back(argv[0]);
    options.forBenchmark.insert(options.forBenchmark.end(), std::begin(kDefaults), std::end(kDefaults));
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") != 0) {
            options.forBenchmark.emplace_back(argv[i]);
        } else if (++i < argc && *argv[i] != 0) {
            options.jsonPath = argv[i];
        } else {
            return false;
        }
    }
    return true;
}

// False, and told, if there is an option that nobody knows.
bool initializeBenchmark(Options &options) {
    std::vector<char *> arguments;
    for (std::string &option : options.forBenchmark) {
        arguments.push_back(option.data());
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data(), [] {
        std::cout << "brenvole_bench [--json FILE] [--benchmark_filter=REGEX] [--benchmark_repetitions=COUNT] "
                     "[--benchmark_min_time=SECONDS]\n";
    });
    return !benchmark::ReportUnrecognizedArguments(count, arguments.data());
}

std::string cpuModel() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        const std::size_t colon = line.find(": ");
        if (line.starts_with("model name") && colon != std::string::npos) {
            return line.substr(colon + 2);
        }
    }
    return "unknown processor";
}

std::string peerVersions() {
    return allocatorVersions() + ", FFmpeg " + av_version_info() + ", " + gstreamerStart() + ", oneTBB " +
           TBB_runtime_version() + ", Boost " + std::to_string(BOOST_VERSION / 100000) + '.' +
           std::to_string(BOOST_VERSION / 100 % 1000) + ", " BENCH_HEAPTRACK_VERSION;
}

// Collects the repetitions; the table is printed at the end, when all sides are there.
class Collector : public benchmark::BenchmarkReporter {
  public:
    explicit Collector(bool withoutHead) : silent(withoutHead) {}

    bool ReportContext(const Context &context) override {
        if (silent) {
            return true;
        }
        std::cout << cpuModel() << ", " << context.cpu_info.num_cpus << " cores, "
                  << static_cast<long>(context.cpu_info.cycles_per_second / 1e6) << " MHz, load";
        for (double load : context.cpu_info.load_avg) {
            std::cout << ' ' << load;
        }
        std::cout << "; compiler " BENCH_COMPILER "\n" << peerVersions() << "\n\n" << std::flush;
        return true;
    }

    void ReportRuns(const std::vector<Run> &reported) override {
        for (const Run &run : reported) {
            if (run.error_occurred) {
                if (failed.insert(run.benchmark_name()).second) { // once for all repetitions
                    std::cerr << "brenvole_bench: " << run.benchmark_name() << ": " << run.error_message << '\n';
                }
            } else if (run.run_type == Run::RT_Iteration) {
                runs.push_back(run);
            }
        }
    }

    std::vector<Run> runs;        // in the order in which they ran
    std::set<std::string> failed; // by their names

  private:
    bool silent; // no head of a table
};

using Run = benchmark::BenchmarkReporter::Run;

// Of one round of the work. As a rule processor time: on a shared machine real time counts other programs' turns as
// well. With several threads real time all the same, since who waits for a lock takes no processor; and what a child
// has measured itself.
double nanoseconds(const Run &run) {
    const auto rounds = static_cast<double>(run.iterations);
    if (run.threads > 1) {
        return run.real_accumulated_time * static_cast<double>(run.threads) / rounds * 1e9;
    }
    const bool byChild = run.run_name.time_type == "manual_time";
    return (byChild ? run.real_accumulated_time : run.cpu_accumulated_time) / rounds * 1e9;
}

std::vector<Row> rowsOf(std::vector<Run> runs) {
    std::stable_sort(runs.begin(), runs.end(), [](const auto &a, const auto &b) {
        return std::pair(a.family_index, a.per_family_instance_index) <
               std::pair(b.family_index, b.per_family_instance_index);
    });
    std::vector<Row> rows;
    for (const Run &run : runs) {
        const std::string &name = run.run_name.function_name;
        const std::string &argument = run.run_name.args;
        const std::size_t slash = name.find('/');
        int64_t n = 0;
        std::from_chars(argument.data(), argument.data() + argument.size(), n);
        Side &side = tableSide(rows, name.substr(0, slash), name.substr(slash + 1), n, static_cast<int>(run.threads));
        side.benchmark = run.benchmark_name();
        side.ns.push_back(nanoseconds(run));
        if (const auto faults = run.counters.find("faults"); faults != run.counters.end()) {
            side.faults.push_back(faults->second.value);
        }
    }
    return rows;
}

// The peak memory of all sides of the works where it differs, one after the other.
void measurePeaks(std::vector<Row> &rows) {
    for (Row &row : rows) {
        for (Side &side : row.sides) {
            if (peakWanted(row.work, side.name, row.n, row.threads)) {
                std::cerr << "peak memory: " << side.benchmark << '\n';
                side.peakKiB = peakMeasure(side.benchmark);
            }
        }
    }
}

// Tells every now and then that the program is still at work.
void tellProgress(const std::future<void> &ended) {
    constexpr std::chrono::seconds kStep{15};
    for (auto told = kStep; ended.wait_for(kStep) == std::future_status::timeout; told += kStep) {
        std::cerr << "measuring: " << told.count() << " s\n";
    }
}

bool runAll(Collector &collector) {
    // The C library leaves out atomic instructions in a process of one thread. No host of ours is one.
    std::promise<void> end;
    std::thread idle([ended = end.get_future()] { tellProgress(ended); });
    const std::size_t count = benchmark::RunSpecifiedBenchmarks(&collector);
    end.set_value();
    idle.join();
    return count != 0 && collector.failed.empty();
}

// The child that measures memory: one benchmark, alone.
int runPeak(const char *program, const std::string &benchmarkName) {
    Options options;
    options.forBenchmark.emplace_back(program);
    options.forBenchmark.insert(options.forBenchmark.end(), std::begin(kPeakDefaults), std::end(kPeakDefaults));
    options.forBenchmark.emplace_back("--benchmark_filter=^" + benchmarkName + '$');
    if (!initializeBenchmark(options)) {
        return EXIT_FAILURE;
    }
    peerVersions(); // loads them all, so that their code isn't counted
    Collector collector(true);
    peakBegin();
    const bool whole = runAll(collector);
    std::cout << static_cast<long>(peakGrowth()) << '\n';
    return whole ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv) {
    allocatorsMakeRoom(argv);
    qxSetLogSink([](uint32_t, const char *, void *) {}, nullptr); // the closing words of each heap
    if (argc == 2 && std::string_view(argv[1]).starts_with(kPeakOption)) {
        return runPeak(argv[0], argv[1] + std::strlen(kPeakOption));
    }
    Options options;
    if (!readOptions(argc, argv, options)) {
        std::cerr << "brenvole_bench: --json needs a file name\n";
        return EXIT_FAILURE;
    }
    if (!initializeBenchmark(options)) {
        return EXIT_FAILURE;
    }
    std::ofstream json;
    if (!options.jsonPath.empty()) {
        json.open(options.jsonPath); // before the run, which would be lost otherwise
    }
    Collector collector(false);
    bool whole = json.good() && runAll(collector);
    std::vector<Row> rows = rowsOf(collector.runs);
    measurePeaks(rows);
    tableFinish(rows);
    tablePrint(std::cout, rows);
    if (json.is_open()) {
        tableWriteJson(json, rows);
        json.close();
    }
    if (!json.good()) {
        std::cerr << "brenvole_bench: " << options.jsonPath << " can't be written\n";
        whole = false;
    }
    benchmark::Shutdown();
    return whole ? EXIT_SUCCESS : EXIT_FAILURE;
}
