// brenvole_bench: what the library costs next to the usual ways of doing the same.
//
// Both sides of a row are measured in one run, their repetitions in random order, so that a slow phase of the
// machine hits them alike. Nothing here is judged: figures go to a table and, with --json FILE, to a file.
#include "table.h"

#include "util/qxutil.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Set before the caller's options, which may change any of them. Many short repetitions find a quiet moment of
// the machine sooner than few long ones; the whole run stays well under a minute.
const char *const kDefaults[] = {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=9",
                                 "--benchmark_min_time=0.04", "--benchmark_min_warmup_time=0.02"};

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

// Collects the repetitions; the table is printed at the end, when all sides are there.
class Collector : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context &context) override {
        std::cout << cpuModel() << ", " << context.cpu_info.num_cpus << " cores, "
                  << static_cast<long>(context.cpu_info.cycles_per_second / 1e6) << " MHz, load";
        for (double load : context.cpu_info.load_avg) {
            std::cout << ' ' << load;
        }
        std::cout << "; compiler " BENCH_COMPILER "\n\n" << std::flush;
        return true;
    }

    void ReportRuns(const std::vector<Run> &reported) override {
        for (const Run &run : reported) {
            if (run.error_occurred) {
                std::cerr << "brenvole_bench: " << run.benchmark_name() << ": " << run.error_message << '\n';
                failed = true;
            } else if (run.run_type == Run::RT_Iteration) {
                runs.push_back(run);
            }
        }
    }

    std::vector<Run> runs; // in the order in which they ran
    bool failed = false;
};

std::vector<Row> rowsOf(std::vector<benchmark::BenchmarkReporter::Run> runs) {
    std::stable_sort(runs.begin(), runs.end(), [](const auto &a, const auto &b) {
        return std::pair(a.family_index, a.per_family_instance_index) <
               std::pair(b.family_index, b.per_family_instance_index);
    });
    std::vector<Row> rows;
    for (const auto &run : runs) {
        const std::string &name = run.run_name.function_name;
        const std::string &argument = run.run_name.args;
        const std::size_t slash = name.find('/');
        int64_t n = 0;
        std::from_chars(argument.data(), argument.data() + argument.size(), n);
        // Processor time: on a shared machine real time counts other programs' turns as well.
        const double seconds = run.cpu_accumulated_time / static_cast<double>(run.iterations);
        Side &side = tableSide(rows, name.substr(0, slash), name.substr(slash + 1), n, static_cast<int>(run.threads));
        side.ns.push_back(seconds * 1e9);
        if (const auto faults = run.counters.find("faults"); faults != run.counters.end()) {
            side.faults.push_back(faults->second.value);
        }
    }
    return rows;
}

bool runAll(Collector &collector) {
    // The C library leaves out atomic instructions in a process of one thread. No host of ours is one.
    std::promise<void> end;
    std::thread idle([ended = end.get_future()] { ended.wait(); });
    const std::size_t count = benchmark::RunSpecifiedBenchmarks(&collector);
    end.set_value();
    idle.join();
    return count != 0 && !collector.failed;
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    if (!readOptions(argc, argv, options)) {
        std::cerr << "brenvole_bench: --json needs a file name\n";
        return EXIT_FAILURE;
    }
    qxSetLogSink([](uint32_t, const char *, void *) {}, nullptr); // the closing words of each heap
    if (!initializeBenchmark(options)) {
        return EXIT_FAILURE;
    }
    std::ofstream json;
    if (!options.jsonPath.empty()) {
        json.open(options.jsonPath); // before the run, which would be lost otherwise
    }
    Collector collector;
    bool whole = json.good() && runAll(collector);
    const std::vector<Row> rows = rowsOf(collector.runs);
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
