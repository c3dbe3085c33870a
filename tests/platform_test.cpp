#include "harness.h"
#include "util/memory_status_posix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include <unistd.h>

namespace {

TEST(Region, CommittedWholeAndGivenBackWhole) {
    constexpr uint64_t kMiB = 1u << 20;
    const bool hugePages = access("/sys/kernel/mm/transparent_hugepage", F_OK) == 0;
    const uint64_t pages = mappedPages();
    for (const uint64_t size : {uint64_t{1}, 2 * kMiB, 5 * kMiB + 1}) {
        auto *const base = static_cast<char *>(qxOSVirtualAlloc(size));
        ASSERT_NE(base, nullptr);
        base[0] = base[size - 1] = 1;
        const std::string flags = mappingAt(base);
        EXPECT_EQ(flags.find(" nr "), std::string::npos) << flags; // the system counts it as committed
        EXPECT_TRUE(!hugePages || size < 2 * kMiB || flags.find(" hg ") != std::string::npos) << flags;
        qxOSVirtualFree(base + 4096); // no base: left alone
        EXPECT_EQ(mappingsAt(base) + mappingsAt(base + size - 1), 2);
        qxOSVirtualFree(base);
        EXPECT_EQ(mappingsAt(base) + mappingsAt(base + size - 1), 0);
        qxOSVirtualFree(base);
        EXPECT_TRUE(kSanitized || mappedPages() == pages); // a sanitizer maps as it likes
    }
    EXPECT_EQ(qxOSVirtualAlloc(0), nullptr);
    EXPECT_EQ(qxOSVirtualAlloc(UINT64_MAX), nullptr);
    EXPECT_EQ(qxOSVirtualAlloc(uint64_t{1} << 50), nullptr);
    qxOSVirtualFree(nullptr);
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

} // namespace
