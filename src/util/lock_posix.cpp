// A recursive lock in one word: who owns it, and whether somebody sleeps. The system's own recursive mutex costs
// some 8 percent more than its plain one, for telling the two kinds apart and for keeping the owner apart from the
// lock word; here taking a free lock is one exchange, which names the owner as it goes (see ./run bench).
#include "qxutil.h"

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <new>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Lock {
    std::atomic<uintptr_t> word; // 0: free; else the owner's mark, and kSleepers if somebody may sleep
    uint32_t depth;              // further entries of the owner, who alone touches it
};

static_assert(sizeof(Lock) <= sizeof(QXCRITICALSECTION::u.abState) && alignof(Lock) <= alignof(QXCRITICALSECTION));
static_assert(std::atomic<uintptr_t>::is_always_lock_free);

constexpr uintptr_t kSleepers = 1;

// A thread's mark is the address of its own copy: no two threads that live have the same, and it is even. The
// storage exists with the thread, so that taking a lock never allocates.
thread_local uint64_t mark __attribute__((tls_model("initial-exec")));

uintptr_t ownMark() { return reinterpret_cast<uintptr_t>(&mark); }

Lock &lockOf(QXCRITICALSECTION *lock) { return *std::launder(reinterpret_cast<Lock *>(lock->u.abState)); }

// The system's word has 32 bits: the low half, which holds the bit that sleepers wait on.
void futex(Lock &lock, int operation, uintptr_t value) {
    static_assert(std::endian::native == std::endian::little);
    const int error = errno;
    syscall(SYS_futex, &lock.word, operation, static_cast<uint32_t>(value), nullptr, nullptr, 0);
    errno = error;
}

// The lock isn't free, or wasn't a moment ago.
__attribute__((noinline, cold)) void enterTaken(Lock &lock) {
    uintptr_t seen = lock.word.load(std::memory_order_relaxed);
    if ((seen & ~kSleepers) == ownMark()) {
        ++lock.depth;
        return;
    }
    for (;; seen = lock.word.load(std::memory_order_relaxed)) {
        if (seen == 0) { // who comes this way can't know whether others sleep, so it says they do
            if (lock.word.compare_exchange_strong(seen, ownMark() | kSleepers, std::memory_order_acquire,
                                                  std::memory_order_relaxed)) {
                return;
            }
        } else if ((seen & kSleepers) != 0 ||
                   lock.word.compare_exchange_strong(seen, seen | kSleepers, std::memory_order_relaxed)) {
            futex(lock, FUTEX_WAIT_PRIVATE, seen | kSleepers); // returns at once if the word has changed
        }
    }
}

} // namespace

void qxOSInitializeCriticalSection(QXCRITICALSECTION *lock) { new (lock->u.abState) Lock{}; }

void qxOSEnterCriticalSection(QXCRITICALSECTION *lock) {
    uintptr_t free = 0;
    if (!lockOf(lock).word.compare_exchange_strong(free, ownMark(), std::memory_order_acquire,
                                                   std::memory_order_relaxed)) [[unlikely]] {
        enterTaken(lockOf(lock));
    }
}

void qxOSLeaveCriticalSection(QXCRITICALSECTION *lock) {
    Lock &own = lockOf(lock);
    if (own.depth != 0) [[unlikely]] {
        --own.depth;
    } else if ((own.word.exchange(0, std::memory_order_release) & kSleepers) != 0) [[unlikely]] {
        futex(own, FUTEX_WAKE_PRIVATE, 1);
    }
}

void qxOSDeleteCriticalSection(QXCRITICALSECTION *) {} // it holds nothing of the system's
