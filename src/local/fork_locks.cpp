#include "fork_locks.h"

#include "dfmem_lock.h"
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
constinit QXStaticLock chainLock; // guards the chain; whoever holds it waits for nothing else, or forks

constinit QXOnce hookOnce = 0;

bool acquire(QXCRITICALSECTION &lock, bool tries) {
    if (tries) {
        return hostTryLock(lock);
    }
    qxOSEnterCriticalSection(&lock);
    return true;
}

// The heaps' locks up to `end`, null for all.
void releaseHeaps(const ForkLock *end) {
    for (const ForkLock *entry = first; entry != end; entry = entry->next) {
        qxOSLeaveCriticalSection(entry->lock);
    }
}

bool acquireHeaps(bool tries) {
    for (ForkLock *entry = first; entry != nullptr; entry = entry->next) {
        if (!acquire(*entry->lock, tries)) {
            releaseHeaps(entry);
            return false;
        }
    }
    return true;
}

// Those inside of poolLock.
bool acquireInner(bool tries) {
    if (acquireHeaps(tries)) {
        if (acquire(dfmemLock, tries)) {
            if (acquire(traceLock, tries)) {
                return true;
            }
            qxOSLeaveCriticalSection(&dfmemLock);
        }
        releaseHeaps(nullptr);
    }
    return false;
}

// All or none.
bool acquireAll(bool tries) {
    if (!tries) {
        poolLock.lock();
    }
    chainLock.lock();
    if (!tries || poolLock.try_lock()) {
        if (acquireInner(tries)) {
            return true;
        }
        poolLock.unlock();
    }
    chainLock.unlock();
    return false;
}

void beforeFork() {
    constexpr std::chrono::microseconds kMoment{50}; // most sections are over by then
    dfmemLockCreate();                               // none may come to be between the handlers
    traceLockCreate();
    const bool tries = hostOwnLocks();
    while (!acquireAll(tries)) {
        std::this_thread::sleep_for(kMoment);
    }
}

void forkedParent() {
    qxOSLeaveCriticalSection(&traceLock);
    qxOSLeaveCriticalSection(&dfmemLock);
    releaseHeaps(nullptr);
    chainLock.unlock();
    poolLock.unlock();
}

void forkedChild() {
    hookOnce = kOnceDone; // the thread that registered this may not be here to say so
    traceForkedChild();
    qxOSInitializeCriticalSection(&traceLock);
    qxOSInitializeCriticalSection(&dfmemLock);
    for (ForkLock *entry = first; entry != nullptr; entry = entry->next) {
        qxOSInitializeCriticalSection(entry->lock);
    }
    chainLock.unlock();
    new (&poolLock) std::recursive_mutex;
}

} // namespace

void forkLockEnter(ForkLock &entry, QXCRITICALSECTION &lock) {
    forkHook();
    const std::scoped_lock hold(chainLock);
    entry = {&lock, first, nullptr};
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
