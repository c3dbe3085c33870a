// Two threads at a moment that the test chooses: while one makes a system call, or has a fault.
#include "harness.h"
#include "local/live_frames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <thread>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace brenvole;

// The calls for one lock: B barrier, W wait, w wait with a timeout, K wake, T a wait that nobody ended.
static std::atomic<const QXCRITICALSECTION *> watched = nullptr;
static std::array<std::atomic<char>, 4096> calls;
static std::atomic<unsigned> callCount = 0, leaveAt = 0; // the call at which the owner leaves
static std::atomic<bool> barrierRefused = false;         // and nobody is woken
static void note(char call) { calls[callCount++ % calls.size()] = call; }

// Takes the place of the C library's function.
using Syscall = long (*)(long, ...);
static Syscall replacedCall() { return reinterpret_cast<Syscall>(systemReplaced("syscall")); }
static const Syscall atStart = replacedCall(); // not to be looked up in a signal handler
extern "C" __attribute__((visibility("default"))) long syscall(long number, ...) noexcept {
    const Syscall next = atStart != nullptr ? atStart : replacedCall();
    static constexpr timespec kPatience = {10, 0}; // a missed wake-up fails the test instead of blocking it
    long a[6];
    va_list list;
    va_start(list, number);
    for (long &argument : a) { argument = va_arg(list, long); }
    va_end(list);
    const auto lock = reinterpret_cast<uint64_t>(watched.load());
    char call = lock != 0 && number == SYS_membarrier ? 'B' : '\0';
    if (lock != 0 && number == SYS_futex && static_cast<uint64_t>(a[0]) - lock < sizeof(QXCRITICALSECTION)) {
        call = (a[1] & FUTEX_CMD_MASK) != FUTEX_WAIT ? 'K' : a[3] != 0 ? 'w' : 'W';
    }
    if (call != 0) { note(call); }
    while (call == 'B' && callCount == leaveAt) { std::this_thread::yield(); }
    if (barrierRefused && (number == SYS_membarrier || call == 'K')) { return errno = EPERM, -1; }
    if (call == 'W') { a[3] = reinterpret_cast<long>(&kPatience); }
    const long result = next(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    if (call == 'W' && result != 0 && errno == ETIMEDOUT) { note('T'); }
    return result;
}

namespace {

bool sleeps(long thread) {
    std::string word;
    std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat") >> word >> word >> word;
    return word == "S";
}

// The calls of two threads of which one leaves a lock at the other's n-th: during a barrier, or once that one sleeps.
// The system may refuse the barrier when a process asks for it, with its first lock, or later.
// With `fork`, a child does so as well, and what it calls comes last.
std::string contend(unsigned n, bool firstRefused = false, bool laterRefused = false, bool forks = false) {
    QXCRITICALSECTION lock;
    barrierRefused = firstRefused;
    qxOSInitializeCriticalSection(&lock);
    barrierRefused = laterRefused;
    qxOSEnterCriticalSection(&lock);
    for (auto &call : calls) { call = 0; }
    callCount = 0, leaveAt = n, watched = &lock;
    std::atomic<long> waiter = 0;
    std::thread other([&] {
        waiter = gettid();
        errno = 77;
        qxOSEnterCriticalSection(&lock);
        EXPECT_EQ(errno, 77);
        qxOSLeaveCriticalSection(&lock);
    });
    for (const auto &call = calls[n - 1]; call != 'B' && (call == 0 || !sleeps(waiter));) {}
    const pid_t child = forks ? fork() : -1;
    if (child == 0) { // the sleeper isn't here: leaving the lock wakes nobody, now and later
        callCount = 0;
        qxOSLeaveCriticalSection(&lock), qxOSEnterCriticalSection(&lock), qxOSLeaveCriticalSection(&lock);
        _exit(static_cast<int>(callCount));
    }
    int woken = 0;
    EXPECT_TRUE(!forks || (waitpid(child, &woken, 0) == child && woken == 0));
    qxOSLeaveCriticalSection(&lock);
    leaveAt = 0;
    other.join();
    watched = nullptr, barrierRefused = false;
    return {calls.begin(), std::find(calls.begin(), calls.end(), 0)};
}

TEST(LockDeathTest, SleepersAreWoken) {
    EXPECT_EXIT(_exit(contend(1, true) == "WK" ? 0 : 1), testing::ExitedWithCode(0), "");
    EXPECT_EQ(contend(1), "BK"); // the sleeper is seen before its last look
    EXPECT_EQ(contend(2), "BWK");
    EXPECT_EQ(contend(2, false, false, true), "BWK");
    EXPECT_EQ(contend(2, false, true).substr(0, 2), "Bw");
}

std::atomic<bool> pinned = false, gone = false;
void *page = nullptr;

TEST(LiveFrames, AFrameStaysWhileItIsRead) {
    page = systemReserve(65536);
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { // the reader's
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
        for (pinned = true; !gone && std::chrono::steady_clock::now() < end;) {}
        EXPECT_FALSE(gone);
        systemProtect(page, 65536, Access::read);
    };
    sigaction(SIGSEGV, &action, &before);
    const auto frame = reinterpret_cast<uintptr_t>(page);
    liveFrameEnter(frame);
    std::thread reader([&] { EXPECT_EQ(liveFrameLinkWord(frame), 0u); });
    while (!pinned) {}
    liveFrameLeave(frame);
    gone = true;
    reader.join();
    sigaction(SIGSEGV, &before, nullptr);
    systemRelease(page, 65536);
    EXPECT_EQ(liveFrameLinkWord(frame), 0u); // isn't read any more
}

} // namespace
