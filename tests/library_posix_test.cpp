// The shared library as a program meets it that loads and unloads it.
#include "harness.h"

#include <brenvole/dframe.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>

#include <dlfcn.h>

namespace {

struct Library {
    void *handle = dlopen(BRENVOLE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    decltype(&DFrameMem) run = reinterpret_cast<decltype(&DFrameMem)>(dlsym(handle, "DFrameMem"));
};

TEST(Library, UnloadGivesEverythingBack) {
    const int64_t before = blocksOut();
    struct sigaction ours; // of this program's own copy of the guard, if an earlier test has armed it
    struct sigaction host {};
    host.sa_handler = SIG_DFL;
    sigaction(SIGSEGV, &host, &ours);
    for (int round = 0; round < 3; ++round) {
        const Library library;
        ASSERT_NE(library.run, nullptr) << dlerror();
        const auto hook = reinterpret_cast<decltype(&DllMain)>(dlsym(library.handle, "DllMain"));
        for (const uint32_t reason : {0u, 1u, 99u}) { EXPECT_EQ(hook(nullptr, reason, nullptr), 1); }
        std::atomic<int> ready = 0;
        std::atomic<uint64_t> bad = 0;
        onThreads(4, [&](int) { // first commands of several threads at once make one lock
            PDFRAME frame = nullptr;
            for (++ready; ready < 4;) {}
            bad |= library.run(DFRAME_ALLOC, 1000, 1, &frame);
            bad |= library.run(DFRAME_FREE, 0, 0, &frame);
        });
        EXPECT_EQ(bad, 0u);
        EXPECT_EQ(blocksOut(), before + 1); // the cached block
        struct sigaction inside {};
        sigaction(SIGSEGV, nullptr, &inside);
        EXPECT_NE(inside.sa_handler, SIG_DFL);
        ASSERT_EQ(dlclose(library.handle), 0);
        ASSERT_EQ(dlopen(BRENVOLE_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
        EXPECT_EQ(blocksOut(), before);
        sigaction(SIGSEGV, nullptr, &inside);
        EXPECT_EQ(inside.sa_handler, SIG_DFL);
    }
    sigaction(SIGSEGV, &ours, nullptr);
}

} // namespace
