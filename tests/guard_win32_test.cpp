// Guarded sections over the system's structured handling, and what they leave to the host.
#include "harness.h"
#include "util/guard.h"

#include <gtest/gtest.h>

#include <windows.h>

namespace {

char *const pages = static_cast<char *>(systemReserve(65536));
volatile int depth = 0;

DWORD protect(DWORD access) {
    DWORD before = 0;
    VirtualAlloc(pages, 65536, MEM_COMMIT, PAGE_READWRITE);
    VirtualProtect(pages, 65536, access, &before);
    return before;
}

TEST(Guard, CatchesFaultsAndExceptions) {
    const std::function<void()> bodies[] = {[] { depth = *static_cast<volatile int *>(nullptr); },
                                            [] { *reinterpret_cast<volatile int *>(~uint64_t{7}) = 1; },
                                            [] {
                                                protect(PAGE_READONLY);
                                                *static_cast<volatile char *>(pages) = 1;
                                            },
                                            [] {
                                                protect(PAGE_READWRITE | PAGE_GUARD);
                                                *static_cast<volatile char *>(pages) = 1;
                                            },
                                            [] { throw std::string("text"); },
                                            [] { RaiseException(0xE06D7363, 0, 0, nullptr); }}; // another compiler's
    for (const auto &body : bodies) {
        bool behind = false;
        EXPECT_TRUE(qxGuarded([&] { // the inner section's fault is none of the outer one's
            EXPECT_FALSE(qxGuarded([&] { body(); }));
            behind = true;
        }));
        EXPECT_TRUE(behind);
    }
    onThreads(4, [](int) {
        for (int i = 0; i < 200; ++i) {
            EXPECT_FALSE(qxGuarded([] { *static_cast<volatile int *>(nullptr) = 1; }));
        }
    });
    EXPECT_EQ(qxLookAtForeign(reinterpret_cast<uintptr_t>(&depth), 5), ForeignWord::differs);
    EXPECT_EQ(qxLookAtForeign(64, 5), ForeignWord::unreadable);
}

// A handler of the host's that mends a fault comes first, and the section goes on.
TEST(Guard, HostsMayMendTheirFaults) {
    void *const handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS *) -> LONG {
        protect(PAGE_READWRITE);
        return EXCEPTION_CONTINUE_EXECUTION;
    });
    protect(PAGE_READONLY);
    EXPECT_TRUE(qxGuarded([] { *static_cast<volatile char *>(pages) = 9; }));
    EXPECT_EQ(*pages, 9);
    RemoveVectoredExceptionHandler(handler);
}

TEST(GuardDeathTest, FaultsOutsideOfSectionsAreTheHosts) {
    EXPECT_EXIT(
        {
            qxGuarded([] { *static_cast<volatile int *>(nullptr) = 1; });
            SetUnhandledExceptionFilter([](EXCEPTION_POINTERS *) -> LONG { std::_Exit(7); });
            *static_cast<volatile int *>(nullptr) = 1;
        },
        testing::ExitedWithCode(7), "");
}

} // namespace
