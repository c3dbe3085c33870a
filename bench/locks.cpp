// Locks and guarded sections, both without anybody in the way.
#include "util/guard.h"
#include "util/qxutil.h"

#include <benchmark/benchmark.h>

#include <mutex>

namespace {

// All locks start a cache line, so that no side pays for where it happens to lie.
constexpr std::size_t kCacheLine = 64;

void lockPairOurs(benchmark::State &state) {
    alignas(kCacheLine) QXCRITICALSECTION lock;
    qxOSInitializeCriticalSection(&lock);
    for ([[maybe_unused]] auto _ : state) {
        qxOSEnterCriticalSection(&lock);
        qxOSLeaveCriticalSection(&lock);
    }
    qxOSDeleteCriticalSection(&lock);
}

template <class Mutex> void lockPairStd(benchmark::State &state) {
    alignas(kCacheLine) Mutex lock;
    for ([[maybe_unused]] auto _ : state) {
        lock.lock();
        lock.unlock();
    }
}

BENCHMARK(lockPairOurs)->Name("lock_pair/ours");
BENCHMARK(lockPairStd<std::mutex>)->Name("lock_pair/std_mutex");
BENCHMARK(lockPairStd<std::recursive_mutex>)->Name("lock_pair/std_recursive_mutex");

__attribute__((noinline)) void nothing(void *) { benchmark::ClobberMemory(); }

void guardOurs(benchmark::State &state) {
    bool whole = true;
    for ([[maybe_unused]] auto _ : state) {
        whole = qxGuardRun(nothing, &state) && whole;
    }
    if (!whole) {
        state.SkipWithError("a section has caught something");
    }
}

void guardNone(benchmark::State &state) {
    void (*volatile opaque)(void *) = nothing;
    for ([[maybe_unused]] auto _ : state) {
        opaque(&state);
    }
}

BENCHMARK(guardOurs)->Name("guarded_section/ours");
BENCHMARK(guardNone)->Name("guarded_section/opaque_call");

} // namespace
