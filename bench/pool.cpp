// The region of the pool: its first use in huge pages and in small ones, and what a refused one costs.
#include "util/qxutil.h"

#include <benchmark/benchmark.h>

#include <sys/mman.h>
#include <sys/resource.h>

namespace {

constexpr uint64_t kPool = 524255000;             // what the library makes by itself
constexpr uint64_t kSmallPage = 4096;             // a byte is written to each of these
constexpr uint64_t kTooLarge = uint64_t{8} << 40; // more memory than machines of this kind let a process have

uint64_t pageFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<uint64_t>(usage.ru_minflt);
}

void *mapSmallPages(uint64_t size) {
    void *const base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    madvise(base, size, MADV_NOHUGEPAGE);
    return base;
}

void unmapSmallPages(void *base) { munmap(base, kPool); }

// A region is had, used for the first time, and given back. False if there is none.
bool useOnce(void *(*have)(uint64_t), void (*giveBack)(void *)) {
    auto *const base = static_cast<volatile char *>(have(kPool));
    if (base == nullptr) {
        return false;
    }
    for (uint64_t at = 0; at < kPool; at += kSmallPage) {
        base[at] = 1;
    }
    giveBack(const_cast<char *>(base));
    return true;
}

// Once before it counts: a virtual machine may have handed memory that nobody used back to its host.
void firstTouch(benchmark::State &state, void *(*have)(uint64_t), void (*giveBack)(void *)) {
    bool had = useOnce(have, giveBack);
    const uint64_t before = pageFaults();
    for ([[maybe_unused]] auto _ : state) {
        had = had && useOnce(have, giveBack);
    }
    if (!had) {
        state.SkipWithError("no region");
        return;
    }
    state.counters["faults"] =
        benchmark::Counter(static_cast<double>(pageFaults() - before) / static_cast<double>(state.iterations()));
}

// One step of a pool that can't be had.
void refused(benchmark::State &state, void *(*have)(uint64_t)) {
    for ([[maybe_unused]] auto _ : state) {
        if (have(kTooLarge) != nullptr) {
            state.SkipWithError("was granted");
            break;
        }
    }
}

BENCHMARK_CAPTURE(firstTouch, ours, qxOSVirtualAlloc, qxOSVirtualFree)->Name("pool_first_touch/ours");
BENCHMARK_CAPTURE(firstTouch, small, mapSmallPages, unmapSmallPages)->Name("pool_first_touch/small_pages");
BENCHMARK_CAPTURE(refused, ours, qxOSVirtualAlloc)->Name("region_refused/ours");
BENCHMARK_CAPTURE(refused, bare, mapSmallPages)->Name("region_refused/mmap");

} // namespace
