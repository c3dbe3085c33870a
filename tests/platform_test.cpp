#include "harness.h"
#include "util/memory_status_posix.h"
#include "util/qxutil.h"

#include <gtest/gtest.h>

#include <fstream>
#include <vector>

namespace {

// Mappings of this process that hold the address.
int mappingsAt(const void *address) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        char *end = nullptr;
        const uint64_t from = std::strtoull(line.c_str(), &end, 16);
        const uint64_t to = std::strtoull(end + 1, nullptr, 16);
        const auto at = reinterpret_cast<uint64_t>(address);
        count += at >= from && at < to ? 1 : 0;
    }
    return count;
}

TEST(Region, CommittedWholeAndGivenBackWhole) {
    constexpr uint64_t kMiB = 1u << 20;
    for (const uint64_t size : {uint64_t{1}, uint64_t{4097}, 2 * kMiB, 5 * kMiB + 1, 64 * kMiB}) {
        auto *const base = static_cast<char *>(qxOSVirtualAlloc(size));
        ASSERT_NE(base, nullptr);
        EXPECT_EQ(reinterpret_cast<uint64_t>(base) % 4096, 0u);
        EXPECT_EQ(base[0], 0);
        EXPECT_EQ(base[size - 1], 0);
        base[0] = base[size - 1] = 1;
        qxOSVirtualFree(base + 4096); // no base: left alone
        EXPECT_EQ(mappingsAt(base), 1);
        EXPECT_EQ(mappingsAt(base + size - 1), 1);
        qxOSVirtualFree(base);
        EXPECT_EQ(mappingsAt(base), 0);
        EXPECT_EQ(mappingsAt(base + size - 1), 0);
        qxOSVirtualFree(base);
    }
    EXPECT_EQ(qxOSVirtualAlloc(0), nullptr);
    EXPECT_EQ(qxOSVirtualAlloc(UINT64_MAX), nullptr);
    EXPECT_EQ(qxOSVirtualAlloc(uint64_t{1} << 50), nullptr);
    qxOSVirtualFree(nullptr);
}

TEST(MemoryStatus, ThisMachine) {
    uint64_t total = 0;
    uint64_t available = 0;
    qxOSMemoryStatus(&total, &available);
    EXPECT_GT(available, uint64_t{16} << 20);
    EXPECT_GE(total, available);
    qxOSMemoryStatus(nullptr, nullptr);
}

struct Machine {
    const char *what;
    std::vector<std::pair<std::string, std::string>> files;
    uint64_t total;
    uint64_t available;
};

TEST(MemoryStatus, ContainersCount) {
    const std::string meminfo = "MemTotal:       8000 kB\nMemFree:  100 kB\nMemAvailable:   5000 kB\n";
    const std::string v2 = "sys/fs/cgroup/", v1 = "sys/fs/cgroup/memory/";
    const Machine machines[] = {
        {"nothing to read", {}, 0, 0},
        {"no group", {{"proc/meminfo", meminfo}}, 8192000, 5120000},
        {"old system", {{"proc/meminfo", "MemTotal: 8 kB\nMemFree: 4 kB\n"}}, 8192, 4096},
        {"no limit",
         {{"proc/meminfo", meminfo}, {"proc/self/cgroup", "0::/a\n"}, {v2 + "a/memory.max", "max\n"}},
         8192000,
         5120000},
        {"limit of a parent, cache counts as free",
         {{"proc/meminfo", meminfo},
          {"proc/self/cgroup", "0::/a/b\n"},
          {v2 + "a/memory.max", "1000000\n"},
          {v2 + "a/memory.current", "700000\n"},
          {v2 + "a/memory.stat", "anon 5\ninactive_file 200000\n"},
          {v2 + "a/b/memory.max", "max\n"}},
         1000000,
         500000},
        {"the mount's own limit, all used",
         {{"proc/meminfo", meminfo},
          {"proc/self/cgroup", "0::/not/seen/here\n"},
          {v2 + "memory.max", "1000\n"},
          {v2 + "memory.current", "2000\n"}},
         1000,
         0},
        {"version 1",
         {{"proc/meminfo", meminfo},
          {"proc/self/cgroup", "5:cpu,memory:/c\n1:name=x:/y\nbroken\n"},
          {v1 + "c/memory.limit_in_bytes", "3000000\n"},
          {v1 + "c/memory.usage_in_bytes", "500000\n"},
          {v1 + "memory.limit_in_bytes", "9223372036854771712\n"}},
         3000000,
         2500000},
        {"limit above the machine",
         {{"proc/meminfo", meminfo}, {"proc/self/cgroup", "0::/a\n"}, {v2 + "a/memory.max", "99000000\n"}},
         8192000,
         5120000},
    };
    for (const Machine &machine : machines) {
        const TemporaryDirectory root;
        for (const auto &[name, content] : machine.files) {
            root.write(name, content);
        }
        const QXMemoryStatus status = qxReadMemoryStatus(root.path);
        EXPECT_EQ(status.totalPhys, machine.total) << machine.what;
        EXPECT_EQ(status.availPhys, machine.available) << machine.what;
    }
}

} // namespace
