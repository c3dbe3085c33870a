#include "harness.h"
#include "util/guard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdio>

#include <sys/mman.h>
#include <unistd.h>

namespace {

__attribute__((noinline)) int readAt(const volatile int *at) { return *at; }

bool canRead(const int *at) {
    return qxGuarded([at] { readAt(at); });
}

// Pages of each kind that can't be read, and one that can.
struct Pages {
    std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::FILE *file = std::tmpfile();
    int *unmapped = reinterpret_cast<int *>(4096); // where the system maps nothing
    int *noAccess = map(PROT_NONE), *fine = map(PROT_READ | PROT_WRITE);
    int *pastFile = map(PROT_READ, MAP_SHARED, fileno(file)); // the file is empty: a bus error
    int *map(int access, int flags = MAP_PRIVATE | MAP_ANONYMOUS, int from = -1) const {
        return static_cast<int *>(mmap(nullptr, page, access, flags, from, 0));
    }
};

const Pages pages;

TEST(Guard, CatchesFaultsAndExceptions) {
    std::atomic<int> ready = 0;
    onThreads(4, [&](int) {
        for (++ready; ready < 4;) {}                // all at once
        for (int round = 0; round < 200; ++round) { // a caught fault leaves no mask and no state behind
            EXPECT_FALSE(canRead(pages.unmapped));
            EXPECT_FALSE(canRead(pages.noAccess));
            EXPECT_FALSE(canRead(pages.pastFile));
            EXPECT_FALSE(canRead(reinterpret_cast<const int *>(0x8000000000000000))); // no canonical address
            EXPECT_TRUE(canRead(pages.fine));
            EXPECT_FALSE(qxGuarded([] { throw 1; }));
            int sum = 0; // the code whose reads must stay inside: no call, no volatile, the result used
            qxGuarded([&sum, at = pages.noAccess] { sum += *at; });
            EXPECT_EQ(sum, 0);
        }
    });
}

TEST(Guard, SectionsNest) {
    bool behind = false;
    EXPECT_FALSE(qxGuarded([&] {
        EXPECT_FALSE(canRead(pages.noAccess));
        EXPECT_TRUE(qxGuarded([] {}));
        EXPECT_FALSE(qxGuarded([] { throw 1; }));
        behind = true;
        readAt(pages.noAccess); // the outer one is armed again
    }));
    EXPECT_TRUE(behind);
}

// ---- other handlers: each case in a process of its own ------------------------------------------------------------

void inChild(bool (*body)()) { EXPECT_EXIT(_exit(body() ? 0 : 1), testing::ExitedWithCode(0), ""); }

sigjmp_buf hostRecovery;
int hostCalls = 0;
sigset_t maskInHost;

void hostHandler(int, siginfo_t *info, void *) {
    ++hostCalls;
    pthread_sigmask(SIG_SETMASK, nullptr, &maskInHost);
    if (info->si_code > 0) { siglongjmp(hostRecovery, 1); }
}

void installHost() {
    struct sigaction action {};
    action.sa_sigaction = hostHandler;
    action.sa_flags = SA_SIGINFO;
    sigaddset(&action.sa_mask, SIGUSR1);
    sigaction(SIGSEGV, &action, nullptr);
    sigaction(SIGBUS, &action, nullptr);
}

// True if a fault outside every section came to the host's handler.
bool faultReachesHost(const int *at) {
    const int before = hostCalls;
    if (sigsetjmp(hostRecovery, 1) == 0) { readAt(at); }
    return hostCalls == before + 1;
}

TEST(GuardDeathTest, EarlierHandlerGetsWhatIsNotOurs) {
    inChild([] {
        installHost();
        const bool ours = !canRead(pages.noAccess) && !canRead(pages.pastFile) && hostCalls == 0;
        const bool theirs = faultReachesHost(pages.noAccess) && faultReachesHost(pages.pastFile) &&
                            sigismember(&maskInHost, SIGUSR1) == 1 && sigismember(&maskInHost, SIGBUS) == 1;
        raise(SIGSEGV); // sent, no fault: theirs too, inside a section as well
        const bool sent = hostCalls == 3 && qxGuarded([] { raise(SIGSEGV); }) && hostCalls == 4;
        return ours && theirs && sent && !canRead(pages.noAccess);
    });
}

struct sigaction replacedByLater;

TEST(GuardDeathTest, LaterHandlerMayKeepAFaultOrPassItOn) {
    inChild([] {
        const bool ours = !canRead(pages.noAccess);
        installHost();
        return ours && faultReachesHost(pages.noAccess) && faultReachesHost(pages.unmapped);
    });
    inChild([] {
        canRead(pages.noAccess);
        struct sigaction later {};
        later.sa_flags = SA_SIGINFO; // the signal is blocked while it runs
        later.sa_sigaction = [](int fault, siginfo_t *info, void *context) {
            replacedByLater.sa_sigaction(fault, info, context);
        };
        sigaction(SIGSEGV, &later, &replacedByLater);
        const bool first = !canRead(pages.noAccess);
        return first && !canRead(pages.unmapped) && canRead(pages.fine);
    });
}

TEST(GuardDeathTest, WithoutAHandlerTheProcessDiesOfTheTrueCause) {
    const int *const sent = nullptr; // no read but a signal
    for (const auto &[signal, page] :
         {std::pair<int, const int *>{SIGSEGV, pages.noAccess}, {SIGBUS, pages.pastFile}, {SIGSEGV, sent}}) {
        EXPECT_EXIT(
            {
                std::signal(SIGSEGV, SIG_DFL);
                std::signal(SIGBUS, SIG_IGN); // the system doesn't let a fault be ignored
                canRead(pages.noAccess);
                page != sent ? readAt(page) : raise(SIGSEGV);
            },
            testing::KilledBySignal(signal), "");
    }
}

} // namespace
