#include "frame_fixture.h"
#include "util/memory_status_posix.h"

#include <algorithm>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

TEST(Region, CommittedAndOfHugePages) {
    constexpr uint64_t kMiB = 1u << 20;
    const bool hugePages = access("/sys/kernel/mm/transparent_hugepage", F_OK) == 0;
    const uint64_t pages = mappedPages();
    for (const uint64_t size : {uint64_t{1}, 2 * kMiB, 5 * kMiB + 1}) {
        void *const base = qxOSVirtualAlloc(size);
        const std::string flags = mappingAt(base);
        EXPECT_EQ(flags.find(" nr "), std::string::npos) << flags; // the system counts it as committed
        EXPECT_TRUE(!hugePages || size < 2 * kMiB || flags.find(" hg ") != std::string::npos) << flags;
        qxOSVirtualFree(base);
        EXPECT_TRUE(kSanitized || mappedPages() == pages); // a sanitizer maps as it likes
    }
}

struct Machine {
    const char *what;
    const char *meminfo;
    const char *group; // /proc/self/cgroup
    const char *files; // words "name=content" below /sys/fs/cgroup, a colon for a blank
    uint64_t total, available;
};

TEST(MemoryStatus, ContainersCount) {
    const char *const info = "MemTotal:       8000 kB\nMemFree:  100 kB\nMemAvailable:   5000 kB\n";
    const Machine machines[] = {
        {"nothing to read", "", "", "", 0, 0},
        {"no group", info, "", "", 8192000, 5120000},
        {"old system", "MemTotal: 8 kB\nMemFree: 4 kB\n", "", "", 8192, 4096},
        {"limit of a parent, cache counts as free", info, "0::/a/b\n",
         "a/memory.max=1000000 a/memory.current=700000 a/memory.stat=inactive_file:200000 a/b/memory.max=max",
         1000000, 500000},
        {"the mount's own limit, all used", info, "0::/not/seen/here\n", "memory.max=1000 memory.current=2000", 1000,
         0},
        {"version 1", info, "5:cpu,memory:/c\n1:name=x:/y\nbroken\n",
         "memory/c/memory.limit_in_bytes=3000000 memory/c/memory.usage_in_bytes=500000 "
         "memory/memory.limit_in_bytes=9223372036854771712",
         3000000, 2500000},
    };
    for (const Machine &machine : machines) {
        const TemporaryDirectory root;
        root.write("proc/meminfo", machine.meminfo);
        root.write("proc/self/cgroup", machine.group);
        std::istringstream files(machine.files);
        for (std::string word; files >> word;) {
            std::replace(word.begin(), word.end(), ':', ' ');
            root.write("sys/fs/cgroup/" + word.substr(0, word.find('=')), word.substr(word.find('=') + 1) + "\n");
        }
        const QXMemoryStatus status = qxReadMemoryStatus(root.path);
        EXPECT_EQ(status.totalPhys, machine.total) << machine.what;
        EXPECT_EQ(status.availPhys, machine.available) << machine.what;
    }
}

std::string configDirectory(int32_t create) {
    char buffer[QX_PATH_CAPACITY];
    qxOSGetConfigDir(buffer, create);
    return buffer;
}

TEST(Directories, EndInASlashOrAreEmpty) {
    const TemporaryDirectory directory;
    const Environment own("QXUTIL_CONFIG_DIR", nullptr);
    const Environment user("XDG_CONFIG_HOME", nullptr);
    const Environment at("HOME", directory.path.substr(0, directory.path.size() - 1).c_str());
    const std::string ours = directory.path + ".config/qxutil/", fits(QX_PATH_CAPACITY - 2, 'x');
    for (const int32_t create : {0, 1}) {
        EXPECT_EQ(configDirectory(create), ours);
        EXPECT_EQ(std::filesystem::is_directory(ours), create != 0);
    }
    const std::string cases[][3] = {{"XDG_CONFIG_HOME", "/somewhere", "/somewhere/qxutil/"},
                                    {"XDG_CONFIG_HOME", "relative", ours},
                                    {"QXUTIL_CONFIG_DIR", "/a/b", "/a/b/"},
                                    {"QXUTIL_CONFIG_DIR", fits, fits + "/"},
                                    {"QXUTIL_CONFIG_DIR", fits + "x", ""},
                                    {"HOME", "", ""}};
    for (const auto &[name, value, expected] : cases) {
        const Environment set(name.c_str(), value.c_str());
        EXPECT_EQ(configDirectory(0), expected) << name << " " << value;
    }
    const Environment file("QXUTIL_CONFIG_DIR", directory.write("file", "").c_str());
    EXPECT_EQ(configDirectory(1), ""); // no directory, and none can be made
}

TEST(Directories, Temporary) {
    const std::tuple<const char *, uint32_t, std::string> cases[] = {
        {"/var/tmp", 10, "/var/tmp/"}, {"/var/tmp", 9, "/tmp/"}, {nullptr, 6, "/tmp/"}, {nullptr, 5, ""}};
    for (const auto &[variable, capacity, expected] : cases) {
        const Environment set("TMPDIR", variable);
        char buffer[16];
        qxOSGetTempDir(buffer, capacity);
        EXPECT_EQ(buffer, expected);
    }
}

// A process that may have less than it asks for.
TEST(RegionDeathTest, RefusedByALimit) {
    if (kSanitized) { GTEST_SKIP() << "the sanitizers need more address space than a limit leaves"; }
    const rlimit limit = {uint64_t{1} << 30, uint64_t{1} << 30};
    EXPECT_EXIT(_exit(setrlimit(RLIMIT_AS, &limit) == 0 && qxOSVirtualAlloc(2 * limit.rlim_cur) == nullptr ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

// Only read, write and exit are left to the process: a round trip that made any other call would end it.
TEST(FramesDeathTest, CachedRoundTripMakesNoSystemCall) {
    if (kSanitized) { GTEST_SKIP() << "the sanitizers' allocators make calls of their own"; }
    EXPECT_EXIT(
        {
            const auto roundTrips = [] {
                uint64_t bad = 0;
                for (uint32_t i = 0; i < 100; ++i) { // events, before the trace looks at its sources again
                    const uint32_t side = i % 2 * DFRAME_FLAG_SYSHEAP; // both heaps
                    PDFRAME small = nullptr;
                    PDFRAME big = nullptr;
                    bad |= alloc(big, 3110400, side) | alloc(small, 4096, side) | addRef(big);
                    PDFRAME second = big;
                    bad |= free(second) | free(big) | free(small);
                }
                return bad;
            };
            DFrameMem(DFRAME_RESET, 20000000, 0, nullptr);
            roundTrips(); // fills the cache, and the allocator's own
            if (prctl(PR_SET_SECCOMP, 1) != 0) { _exit(2); }
            syscall(SYS_exit, roundTrips() == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
