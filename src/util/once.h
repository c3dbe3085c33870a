/** @file
 *  What is made once in a process, by whichever thread comes first. Private. */
#ifndef QXUTIL_ONCE_H
#define QXUTIL_ONCE_H

#include "qxutil.h"

#include <atomic>
#include <cstdint>
#include <thread>

/** 0 at the start; the negative number of the process while a thread of it makes the thing; kOnceDone afterwards. */
using QXOnce = std::atomic<int64_t>;
inline constexpr int64_t kOnceDone = 1;

inline bool qxDone(const QXOnce &once) { return once.load(std::memory_order_acquire) == kOnceDone; }

/** Runs `make`, which doesn't throw, if nobody has; else waits until it is done. A child that was forked while
 *  another thread of its parent was at it has no such thread, and runs `make` anew: it must bear that.
 *
 *  Not std::call_once, which with some compilers takes one of the process's few thread-local slots at each load
 *  of the library and never returns it, and which waits forever in such a child. */
template <class Make> void qxOnce(QXOnce &once, const Make &make) {
    if (qxDone(once)) {
        return;
    }
    const int64_t mine = -static_cast<int64_t>(qxOSGetProcessId());
    for (int64_t seen = once.load(std::memory_order_acquire); seen != kOnceDone;
         seen = once.load(std::memory_order_acquire)) {
        if (seen == mine) {
            std::this_thread::yield();
        } else if (once.compare_exchange_strong(seen, mine)) {
            make();
            once.store(kOnceDone, std::memory_order_release);
        }
    }
}

#endif
