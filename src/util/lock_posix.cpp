// A recursive lock. Taking a free one is one exchange, which names the owner as it goes. Leaving is a plain store,
// where other locks need a second exchange: between giving the lock up and looking whether somebody sleeps, a
// processor might otherwise look first. That order is the sleeper's business here: before it goes to sleep, it has
// the system make every thread of the process pass a barrier (membarrier). An owner that leaves then either shows
// that the lock is free to the sleeper's last look, or sees the sleeper. Half of what an uncontended lock costs goes
// to who has to sleep anyway. Where the system has no such barrier, leaving makes its own.
//
// The system's own recursive mutex costs some 8 percent more than its plain one, for telling the two kinds apart (see
// ./run bench).
#include "fork.h"
#include "qxutil.h"

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <new>

#include <immintrin.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Lock {
    std::atomic<uintptr_t> word;    // 0: free; else the owner's mark
    uint32_t depth;                 // further entries of the owner, who alone touches it
    std::atomic<uint64_t> sleepers; // low half: threads that sleep or are about to; high half: their process
};

static_assert(sizeof(Lock) <= sizeof(QXCRITICALSECTION::u.abState) && alignof(Lock) <= alignof(QXCRITICALSECTION));
static_assert(std::atomic<uintptr_t>::is_always_lock_free);

// What a thread waits before it looks at a lock again that was taken, and how often it looks before it sleeps: most
// sections are over in less time than the system takes for that. It doesn't look more often: each look takes the
// lock's line of the cache away from the owner, and a thread that comes back late lets the other one do several
// rounds in the meantime. Two threads that do nothing but take and release frames make three times as many this way.
constexpr int kFirstPauses = 64; // of some 10 to 50 ns each
constexpr int kMostPauses = 128;
constexpr int kLooks = 6;

// How sleepers and owners agree: 0 not asked yet, 1 by the system's barrier, -1 by one of the owner's own.
// Sequentially consistent wherever it is read, and so is `sleepers`: who still finds 0 or -1 here has shown itself as
// a sleeper to all who will find 1.
constinit std::atomic<int> barrier = 0;

// Counts the forks between the first process and this one. Sleepers of another generation aren't here: a child must
// not go on waking what slept in its parent.
constexpr unsigned kGenerationShift = 32;
constinit std::atomic<uint64_t> generation = 0; // in the place of a lock's high half

// A thread's mark is the address of its own copy, made odd: no two threads that live have the same, and no half of it
// is 0, which says free. The storage exists with the thread, so that taking a lock never allocates.
thread_local uint64_t mark __attribute__((tls_model("initial-exec")));

uintptr_t ownMark() { return reinterpret_cast<uintptr_t>(&mark) | 1; }

Lock &lockOf(QXCRITICALSECTION *lock) { return *std::launder(reinterpret_cast<Lock *>(lock->u.abState)); }

// The system's word has 32 bits: the low half. Should that be the same for two owners, the sleeper just doesn't
// notice that one has followed the other.
long futex(Lock &lock, int operation, uintptr_t value, const timespec *patience) {
    static_assert(std::endian::native == std::endian::little);
    return syscall(SYS_futex, &lock.word, operation, static_cast<uint32_t>(value), patience, nullptr, 0);
}

// The system's answer, as `barrier` has it.
int barrierAnswer() {
    const int error = errno;
    const bool there = syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
    errno = error;
    return there ? 1 : -1;
}

void askForBarrier() {
    if (barrier.load() == 0) {
        int notAsked = 0; // one answer holds, whoever got it
        barrier.compare_exchange_strong(notAsked, barrierAnswer());
    }
}

bool takeFree(Lock &lock) {
    uintptr_t free = 0;
    return lock.word.load(std::memory_order_relaxed) == 0 &&
           lock.word.compare_exchange_strong(free, ownMark(), std::memory_order_acquire, std::memory_order_relaxed);
}

bool inherited(uint64_t sleepers) { return ((sleepers ^ generation.load()) >> kGenerationShift) != 0; }

void showSleeper(Lock &lock) {
    uint64_t seen = lock.sleepers.load();
    while (!lock.sleepers.compare_exchange_weak(seen, (inherited(seen) ? generation.load() : seen) + 1)) {
    }
}

// Sleeps until the lock may be free.
void sleepOn(Lock &lock) {
    // A barrier that the system refuses after all, say in a child that it has forgotten: then sleeping is for a
    // moment.
    constexpr timespec kMoment{0, 1'000'000};
    showSleeper(lock);
    const bool sure = barrier.load() != 1 || syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0;
    const uintptr_t seen = lock.word.load();
    if (seen != 0) {
        futex(lock, FUTEX_WAIT_PRIVATE, seen, sure ? nullptr : &kMoment); // returns at once if the word has changed
    }
    lock.sleepers.fetch_sub(1);
}

// The lock isn't free, or wasn't a moment ago.
__attribute__((noinline, cold)) void enterTaken(Lock &lock) {
    if (lock.word.load(std::memory_order_relaxed) == ownMark()) {
        ++lock.depth;
        return;
    }
    const int error = errno;
    for (;;) {
        for (int look = 0, pauses = kFirstPauses; look < kLooks; ++look, pauses = kMostPauses) {
            for (int pause = 0; pause < pauses; ++pause) {
                _mm_pause();
            }
            if (takeFree(lock)) {
                errno = error;
                return;
            }
        }
        sleepOn(lock);
    }
}

__attribute__((noinline, cold)) void wakeOne(Lock &lock) {
    uint64_t seen = lock.sleepers.load();
    if (inherited(seen) && lock.sleepers.compare_exchange_strong(seen, generation.load())) {
        return; // they slept in a parent of this process
    }
    const int error = errno;
    futex(lock, FUTEX_WAKE_PRIVATE, 1, nullptr);
    errno = error;
}

} // namespace

void qxOSInitializeCriticalSection(QXCRITICALSECTION *lock) {
    new (lock->u.abState) Lock{};
    askForBarrier();
    qxHookFork();
}

void qxOSEnterCriticalSection(QXCRITICALSECTION *lock) {
    if (!takeFree(lockOf(lock))) [[unlikely]] {
        enterTaken(lockOf(lock));
    }
}

int32_t qxOSTryEnterCriticalSection(QXCRITICALSECTION *lock) {
    Lock &own = lockOf(lock);
    if (takeFree(own)) {
        return 1;
    }
    if (own.word.load(std::memory_order_relaxed) != ownMark()) {
        return 0;
    }
    ++own.depth;
    return 1;
}

void qxOSLeaveCriticalSection(QXCRITICALSECTION *lock) {
    Lock &own = lockOf(lock);
    if (own.depth != 0) [[unlikely]] {
        --own.depth;
        return;
    }
    if (barrier.load() == 1) [[likely]] {
        own.word.store(0, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst); // the compiler keeps the order; the processor, see above
    } else {
        own.word.exchange(0);
    }
    if (static_cast<uint32_t>(own.sleepers.load()) != 0) [[unlikely]] {
        wakeOne(own);
    }
}

void qxOSDeleteCriticalSection(QXCRITICALSECTION *) {} // it holds nothing of the system's

// The forking thread has no other beside it here. Its own entries stay: its mark is where it was.
void qxLocksForked() {
    generation.fetch_add(uint64_t{1} << kGenerationShift);
    if (barrier.load() != 0) {
        barrier.store(barrierAnswer());
    }
}
