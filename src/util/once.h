/** @file
 *  What is made once in a process, by whichever thread comes first. Private. */
#ifndef QXUTIL_ONCE_H
#define QXUTIL_ONCE_H

#include <atomic>
#include <cstdint>
#include <thread>

/** 0 at the start; kOnceDone from the end of the making on. */
using QXOnce = std::atomic<int32_t>;
inline constexpr int32_t kOnceClaimed = -1;
inline constexpr int32_t kOnceDone = 1;

inline bool qxDone(const QXOnce &once) { return once.load(std::memory_order_acquire) == kOnceDone; }

/** Runs `make`, which doesn't throw, if nobody has; else waits until it is done. Not std::call_once, which with some
 *  compilers takes one of the process's few thread-local slots at each load of the library, and never gives it back.
 */
template <class Make> void qxOnce(QXOnce &once, const Make &make) {
    if (qxDone(once)) {
        return;
    }
    int32_t fresh = 0;
    if (once.compare_exchange_strong(fresh, kOnceClaimed)) {
        make();
        once.store(kOnceDone, std::memory_order_release);
    }
    while (!qxDone(once)) {
        std::this_thread::yield();
    }
}

#endif
