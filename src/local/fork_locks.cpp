#include "fork_locks.h"

#include "dfmem_lock.h"
#include "live_frames.h"
#include "trace/trace.h"
#include "util/host.h"
#include "util/once.h"
#include "util/static_lock.h"

#include <chrono>
#include <new>
#include <thread>

namespace brenvole {

std::recursive_mutex poolLock;

namespace {

constinit ForkLock *first = nullptr;
constinit QXStaticLock chainLock; // guards the chain; its holder waits for nothing else, or forks

constinit QXOnce hookOnce = 0;

// The locks beside the heaps', in the chain's form. Under chainLock, as all of what a fork holds.
constinit ForkLock dfmem{&dfmemLock, false, nullptr, nullptr};
constinit ForkLock trace{&traceLock, false, nullptr, nullptr};
constinit bool poolHeld = false;

template <class Do> void each(const Do &work) { // from the outermost to the innermost
    for (ForkLock *entry = first; entry != nullptr; entry = entry->next) {
        work(*entry);
    }
    work(dfmem);
    work(trace);
}

enum class How { wait, tryAll, tryEach };

void release() {
    each([](ForkLock &entry) {
        if (entry.held) {
            qxOSLeaveCriticalSection(entry.lock);
        }
        entry.held = false;
    });
    const bool pool = poolHeld;
    chainLock.unlock();
    if (pool) {
        poolLock.unlock();
    }
}

// False if one isn't free that has to be: then none is held.
bool acquire(How how) {
    const bool pool = how == How::wait ? (poolLock.lock(), true) : poolLock.try_lock();
    chainLock.lock();
    poolHeld = pool;
    bool all = pool;
    each([&](ForkLock &entry) {
        if (how == How::wait) {
            qxOSEnterCriticalSection(entry.lock);
        }
        entry.held = how == How::wait || ((all || how == How::tryEach) && hostTryLock(*entry.lock));
        all = all && entry.held;
    });
    if (!all && how == How::tryAll) {
        release();
    }
    return all;
}

void beforeFork() {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::microseconds kMoment{50}; // most sections are over by then
    constexpr std::chrono::seconds kPatience{1};
    dfmemLockCreate(); // none may come to be between the handlers
    traceLockCreate();
    if (!hostOwnLocks()) {
        acquire(How::wait);
        return;
    }
    const Clock::time_point end = Clock::now() + kPatience;
    while (!acquire(How::tryAll)) {
        if (Clock::now() > end) {
            acquire(How::tryEach);
            return;
        }
        std::this_thread::sleep_for(kMoment);
    }
}

void forkedParent() { release(); }

void forkedChild() {
    hookOnce = kOnceDone; // the thread that registered this may not be here to say so
    traceForkedChild();
    bool all = true;
    each([&](ForkLock &entry) {
        all = all && entry.held;
        qxOSInitializeCriticalSection(entry.lock);
        entry.held = false;
    });
    if (!all) { // a reader of a frame may have held it
        liveFramesForked();
    }
    chainLock.unlock();
    new (&poolLock) std::recursive_mutex;
}

} // namespace

void forkLockEnter(ForkLock &entry, QXCRITICALSECTION &lock) {
    forkHook();
    const std::scoped_lock hold(chainLock);
    entry = {&lock, false, first, nullptr};
    if (first != nullptr) {
        first->prev = &entry;
    }
    first = &entry;
}

void forkLockLeave(ForkLock &entry) {
    const std::scoped_lock hold(chainLock);
    (entry.prev != nullptr ? entry.prev->next : first) = entry.next;
    if (entry.next != nullptr) {
        entry.next->prev = entry.prev;
    }
}

void forkHook() {
    qxOnce(hookOnce, [] {
        hostHookUtilFork();
        qxAtFork(beforeFork, forkedParent, forkedChild);
    });
}

} // namespace brenvole
