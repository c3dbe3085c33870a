// What the log and the trace write to fails in every way: the program goes on, its signals are its own, and it is
// told once.
#include "trace_fixture.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <numeric>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

using namespace brenvole;

namespace {

enum class Fault { noReader, readerLeaves, readerStops, limit };

constexpr rlim_t kLimit = 30000; // of a file's size
constexpr int kRounds = 40;      // more than the seconds that a process may take
const std::string text(20000, 'x');

void limitFiles(rlim_t bytes) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min(bytes, limit.rlim_max);
    setrlimit(RLIMIT_FSIZE, &limit);
}

// Runs it in a process that any signal kills, with signals of the process's own that wait, or with none.
template <class Work> void undisturbed(bool waiting, Work &&work) {
    constexpr int kSignals[] = {SIGPIPE, SIGXFSZ};
    sigset_t signals, mask, pending;
    sigemptyset(&signals);
    alarm(kRounds / 2);
    for (const int number : kSignals) {
        std::signal(number, SIG_DFL);
        sigaddset(&signals, number);
    }
    if (waiting) {
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        for (const int number : kSignals) { std::raise(number); }
    }
    errno = 7;
    work();
    if (errno != 7) { _exit(3); }
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    sigpending(&pending);
    for (const int number : kSignals) {
        if (sigismember(&mask, number) != waiting || sigismember(&pending, number) != waiting) { _exit(4); }
    }
}

// The numbers of a file's rows, 0 for one that isn't whole.
std::vector<uint64_t> rowsOf(const std::string &content) {
    std::vector<uint64_t> rows;
    std::istringstream lines(content);
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
        const bool whole = std::ranges::count(line, ',') == 16 && std::ranges::count(line, '"') == 12 &&
                           line.ends_with('"') && line.starts_with('"');
        rows.push_back(whole ? std::stoull(line.substr(line.find(',') + 1)) : 0);
    }
    return rows;
}

struct WriteFaults : TraceFile {
    std::string fifo = directory.path + "fifo";
    WriteFaults() { mkfifo(fifo.c_str(), 0600); }
    int reader(Fault fault) const {
        return fault == Fault::noReader || fault == Fault::limit ? -1 : open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    }
    static void traceRounds() {
        for (int i = 0; i < kRounds; ++i) {
            TraceTouch("a", "phys", nullptr, nullptr, 1, nullptr, 0, text.c_str());
            TraceSnapshot(nullptr);
            DFrameMem(DFRAME_TOTAL, 0, 0, nullptr);
        }
        TraceTouch("a", "phys", nullptr, nullptr, 1, nullptr, 0, std::string(3 << 20, 'x').c_str());
        limitFiles(RLIM_INFINITY); // with the end of that row still to come
        TraceClose("end");
    }
};

TEST_F(WriteFaults, OfLogAndTrace) {
    const std::string log = directory.path + "log";
    const char *const lost = "^QXUtil: can't write to the log file[^\n]*\n$";
    const std::string opened = "^Brenvole DFrame trace enabled: ";
    const std::string rowsLost = "\nBrenvole DFrame trace: unable to write to its file, rows are lost\n$";
    const struct {
        const char *log, *trace;
        Fault fault;
        std::string told;
    } cases[] = {{nullptr, nullptr, Fault::readerLeaves, "^$"},
                 {fifo.c_str(), nullptr, Fault::noReader, "can't open the log file[^\n]*\nbefore\nx"},
                 {fifo.c_str(), nullptr, Fault::readerLeaves, lost},
                 {fifo.c_str(), nullptr, Fault::readerStops, lost},
                 {log.c_str(), nullptr, Fault::limit, lost},
                 {nullptr, fifo.c_str(), Fault::noReader,
                  "^Brenvole DFrame trace enabled but unable to open '" + fifo + "'\n$"},
                 {nullptr, fifo.c_str(), Fault::readerLeaves, opened + fifo + rowsLost},
                 {nullptr, fifo.c_str(), Fault::readerStops, opened + fifo + rowsLost},
                 {nullptr, file.c_str(), Fault::limit, opened + file + rowsLost}};
    for (int number = 0; number < 2 * static_cast<int>(std::size(cases)); ++number) {
        const auto &c = cases[number / 2];
        const Environment logFile("QXUTIL_LOG", c.log), traceFile("QXBRENVOLE_TRACE_FILE", c.trace);
        EXPECT_EXIT(
            {
                int ends[2];
                ends[0] = reader(c.fault);
                if (c.log == c.trace && pipe(ends) == 0) { dup2(ends[1], STDERR_FILENO); }
                undisturbed(number % 2 != 0, [&] {
                    c.trace != nullptr ? static_cast<void>(TraceIsEnabled()) : ErrOut("before");
                    if (c.fault == Fault::readerLeaves) { close(ends[0]); }
                    if (c.fault == Fault::limit) { limitFiles(kLimit); }
                    if (c.trace != nullptr) { return traceRounds(); }
                    for (int i = 0; i < kRounds; ++i) { ErrOut("%s", text.c_str()); }
                });
                _exit(0);
            },
            testing::ExitedWithCode(0), c.told);
    }
    EXPECT_EQ(contentOf(log).substr(0, 8), "before\nx");
    const auto rows = rowsOf(contentOf(file));
    EXPECT_GT(rows.size(), 3u);
    EXPECT_EQ(rows.front(), 1u);
    EXPECT_TRUE(std::ranges::is_sorted(rows, std::less_equal<>()));
    EXPECT_TRUE(contentOf(file).ends_with(",\"end\""));
}

// Signals that don't restart what they interrupt, while rows go to a reader who is slow.
TEST_F(WriteFaults, TimersLoseNoRow) {
    const Environment name("QXBRENVOLE_TRACE_FILE", fifo.c_str());
    inProcess([&] {
        const int from = reader(Fault::readerStops);
        TraceIsEnabled();
        fcntl(from, F_SETFL, 0);
        std::string content;
        std::thread slow([&] {
            systemBlockSignals();
            char part[512];
            for (ssize_t count; (count = read(from, part, sizeof part)) > 0;) {
                content.append(part, static_cast<std::size_t>(count));
            }
        });
        struct sigaction tick {};
        tick.sa_handler = [](int) {};
        sigaction(SIGALRM, &tick, nullptr);
        const itimerval often{{0, 100}, {0, 100}}; // microseconds
        setitimer(ITIMER_REAL, &often, nullptr);
        for (int i = 0; i < 30000; ++i) { TraceTouch("a", "phys", nullptr, nullptr, 1, nullptr, 0, "b"); }
        TraceClose(nullptr);
        slow.join();
        std::vector<uint64_t> all(30003); // with those of the start and of the end
        std::iota(all.begin(), all.end(), 1);
        _exit(rowsOf(content) == all ? 0 : 1);
    });
}

} // namespace
