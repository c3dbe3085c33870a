#include "harness.h"
#include "util/guard.h"

#include <gtest/gtest.h>

#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include <sys/mman.h>
#include <unistd.h>

namespace {

thread_local volatile int seen; // keeps the read alive where nobody wants its result

__attribute__((noinline)) int plainRead(const int *at) {
    const int value = *at;
    seen = value;
    return value;
}

bool canRead(const int *at) {
    int got = -1;
    const bool whole = qxGuarded([&] { got = plainRead(at) + 1; });
    EXPECT_EQ(whole, got != -1);
    return whole;
}

struct Pages { // one page of each kind that can't be read, and one that can
    int *unmapped, *noAccess, *pastFile, *fine;
    Pages() {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const auto map = [&](std::size_t size, int access, int flags, int file) {
            return static_cast<int *>(mmap(nullptr, size, access, flags, file, 0));
        };
        unmapped = map(page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1);
        munmap(unmapped, page);
        noAccess = map(page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1);
        std::FILE *file = std::tmpfile();
        pastFile = map(page, PROT_READ, MAP_SHARED, fileno(file)); // the file is empty: a bus error
        std::fclose(file);
        fine = map(page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1);
    }
};

const Pages &pages() {
    static const Pages all;
    return all;
}

TEST(Guard, CatchesFaultsAndExceptions) {
    for (int round = 0; round < 3; ++round) { // a caught fault leaves no mask and no state behind
        EXPECT_FALSE(canRead(pages().unmapped));
        EXPECT_FALSE(canRead(pages().noAccess));
        EXPECT_FALSE(canRead(pages().pastFile));
        EXPECT_FALSE(canRead(reinterpret_cast<const int *>(0x8000000000000000))); // no canonical address
        EXPECT_FALSE(canRead(reinterpret_cast<const int *>(8)));
        EXPECT_TRUE(canRead(pages().fine));
        EXPECT_FALSE(qxGuarded([] { throw std::runtime_error("caught"); }));
        EXPECT_FALSE(qxGuarded([] { throw 5; }));
    }
}

// The code whose reads must stay inside: no call, no volatile, the result used.
TEST(Guard, PlainReadsStayInside) {
    int sum = 0;
    const int *at = pages().noAccess;
    for (int i = 0; i < 4; ++i) {
        qxGuarded([&sum, at] { sum += *at; });
    }
    EXPECT_EQ(sum, 0);
}

TEST(Guard, SectionsNest) {
    bool inner = true, behind = false;
    EXPECT_TRUE(qxGuarded([&] {
        inner = qxGuarded([] { plainRead(pages().noAccess); });
        behind = true;
    }));
    EXPECT_FALSE(inner);
    EXPECT_TRUE(behind);
    EXPECT_FALSE(qxGuarded([&] {
        EXPECT_TRUE(qxGuarded([] {}));
        EXPECT_FALSE(qxGuarded([] { throw 1; }));
        plainRead(pages().noAccess); // the outer one is armed again
    }));
}

TEST(Guard, ManyThreads) {
    onThreads(4, [](int t) {
        for (int i = 0; i < 500; ++i) {
            ASSERT_EQ(canRead((i + t) % 3 == 0 ? pages().fine : pages().noAccess), (i + t) % 3 == 0);
            ASSERT_FALSE(qxGuarded([] { throw 1; }));
        }
    });
}

TEST(Guard, ForeignWordsAreSeenWithoutAFault) {
    const auto at = [](const int *page) { return reinterpret_cast<uintptr_t>(page); };
    *pages().fine = 42;
    EXPECT_EQ(qxLookAtForeign(at(pages().fine), 42), ForeignWord::looksEqual);
    EXPECT_EQ(qxLookAtForeign(at(pages().fine), 43), ForeignWord::differs);
    for (const uintptr_t wild : {at(pages().unmapped), at(pages().noAccess), at(pages().pastFile), uintptr_t{0},
                                 UINTPTR_MAX - 3, uintptr_t{1} << 63}) {
        EXPECT_EQ(qxLookAtForeign(wild, 0), ForeignWord::unreadable) << wild;
    }
}

// ---- other handlers: each case in a process of its own ------------------------------------------------------------

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
    if (sigsetjmp(hostRecovery, 1) == 0) { plainRead(at); }
    return hostCalls == before + 1;
}

TEST(GuardDeathTest, EarlierHandlerGetsWhatIsNotOurs) {
    EXPECT_EXIT(
        {
            installHost();
            const bool ours = !canRead(pages().noAccess) && !canRead(pages().pastFile) && hostCalls == 0;
            const bool theirs = faultReachesHost(pages().noAccess) && faultReachesHost(pages().pastFile) &&
                                sigismember(&maskInHost, SIGUSR1) == 1 && sigismember(&maskInHost, SIGBUS) == 1;
            raise(SIGSEGV); // sent, no fault: theirs too, inside a section as well
            const bool sent = hostCalls == 3 && qxGuarded([] { raise(SIGSEGV); }) && hostCalls == 4;
            _exit(ours && theirs && sent && !canRead(pages().noAccess) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(GuardDeathTest, LaterHandlerGetsItsOwn) {
    EXPECT_EXIT(
        {
            const bool ours = !canRead(pages().noAccess);
            installHost();
            _exit(ours && faultReachesHost(pages().noAccess) && faultReachesHost(pages().unmapped) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

struct sigaction replacedByLater;

TEST(GuardDeathTest, LaterHandlerThatPassesOnLeavesSectionsWorking) {
    EXPECT_EXIT(
        {
            canRead(pages().noAccess);
            struct sigaction later {};
            later.sa_flags = SA_SIGINFO; // the signal is blocked while it runs
            later.sa_sigaction = [](int fault, siginfo_t *info, void *context) {
                replacedByLater.sa_sigaction(fault, info, context);
            };
            sigaction(SIGSEGV, &later, &replacedByLater);
            const bool first = !canRead(pages().noAccess);
            _exit(first && !canRead(pages().unmapped) && canRead(pages().fine) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(GuardDeathTest, WithoutAHandlerTheProcessDiesOfTheTrueCause) {
    for (const auto &[signal, page] : {std::pair{SIGSEGV, pages().noAccess}, {SIGBUS, pages().pastFile}}) {
        EXPECT_EXIT(
            {
                std::signal(SIGSEGV, SIG_DFL);
                std::signal(SIGBUS, SIG_IGN); // the system doesn't let a fault be ignored
                canRead(pages().noAccess);
                plainRead(page);
            },
            testing::KilledBySignal(signal), "");
    }
    EXPECT_EXIT(
        {
            std::signal(SIGSEGV, SIG_DFL);
            canRead(pages().noAccess);
            raise(SIGSEGV);
        },
        testing::KilledBySignal(SIGSEGV), "");
}

} // namespace
