// Physical memory, as much of it as this process may really have: the machine's figures, cut by the limit of
// every control group that the process lies in, both versions of the system's interface, and by its own limits.
#include "memory_status_posix.h"
#include "qxutil.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <new>
#include <optional>
#include <string_view>

#include <sys/resource.h>
#include <unistd.h>

namespace {

// The old interface tells "no limit" by a huge number, rounded to pages.
constexpr uint64_t kNoLimit = UINT64_C(1) << 60;

std::optional<uint64_t> parseNumber(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    uint64_t value = 0;
    const auto parsed = std::from_chars(text.data() + start, text.data() + text.size(), value);
    return parsed.ec == std::errc() ? std::optional(value) : std::nullopt; // "max" is no number: no limit
}

std::optional<uint64_t> readNumber(const std::string &path) {
    std::ifstream file(path);
    std::string line;
    return std::getline(file, line) ? parseNumber(line) : std::nullopt;
}

// The number behind `name` at the start of a line.
std::optional<uint64_t> readField(const std::string &path, std::string_view name) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name)) {
            return parseNumber(std::string_view(line).substr(name.size()));
        }
    }
    return std::nullopt;
}

struct Names {
    const char *limit;
    const char *usage;
    const char *reclaimable; // in memory.stat: page cache that goes when memory is asked for
};
constexpr Names kVersion1 = {"/memory.limit_in_bytes", "/memory.usage_in_bytes", "total_inactive_file "};
constexpr Names kVersion2 = {"/memory.max", "/memory.current", "inactive_file "};

void applyGroup(const std::string &directory, const Names &names, QXMemoryStatus &status) {
    const std::optional<uint64_t> limit = readNumber(directory + names.limit);
    if (!limit || *limit >= kNoLimit) {
        return;
    }
    const uint64_t usage = readNumber(directory + names.usage).value_or(0);
    const uint64_t cache = readField(directory + "/memory.stat", names.reclaimable).value_or(0);
    const uint64_t held = usage - std::min(usage, cache);
    const uint64_t left = *limit - std::min(*limit, held);
    status.totalPhys = status.totalPhys == 0 ? *limit : std::min(status.totalPhys, *limit);
    status.availPhys = std::min(status.availPhys, left);
}

// A group's limit holds for all below it, so each group up to the root counts. Inside a container the path may
// name groups that can't be seen from there; the mount's own root stands for them then.
void applyGroups(const std::string &mount, std::string path, const Names &names, QXMemoryStatus &status) {
    while (!path.empty() && path != "/") {
        applyGroup(mount + path, names, status);
        path.resize(path.rfind('/') == std::string::npos ? 0 : path.rfind('/'));
    }
    applyGroup(mount, names, status);
}

bool listHolds(std::string_view list, std::string_view word) {
    for (std::size_t start = 0; start <= list.size();) {
        const std::size_t end = std::min(list.find(',', start), list.size());
        if (list.substr(start, end - start) == word) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

// What a limit, if there is one, leaves for the process. `pages` are what it has of it.
void applyLimit(const rlimit &limit, uint64_t pages, QXMemoryStatus &status) {
    if (limit.rlim_cur == RLIM_INFINITY) {
        return;
    }
    const uint64_t most = limit.rlim_cur;
    const uint64_t held = pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    status.totalPhys = std::min(status.totalPhys, most);
    status.availPhys = std::min(status.availPhys, most - std::min(most, held));
}

// The process's own limits: of its address space, and of what it maps for itself.
void applyLimits(QXMemoryStatus &status) {
    uint64_t mapped = 0, other = 0, data = 0; // words 1 and 6, in pages
    std::ifstream("/proc/self/statm") >> mapped >> other >> other >> other >> other >> data;
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) == 0) {
        applyLimit(limit, mapped, status);
    }
    if (getrlimit(RLIMIT_DATA, &limit) == 0) {
        applyLimit(limit, data, status);
    }
}

} // namespace

QXMemoryStatus qxReadMemoryStatus(const std::string &root) {
    constexpr uint64_t kKiB = 1024; // the unit of meminfo
    const std::string meminfo = root + "/proc/meminfo";
    QXMemoryStatus status;
    status.totalPhys = readField(meminfo, "MemTotal:").value_or(0) * kKiB;
    const auto available = readField(meminfo, "MemAvailable:");
    status.availPhys = (available ? available : readField(meminfo, "MemFree:")).value_or(0) * kKiB;

    std::ifstream groups(root + "/proc/self/cgroup"); // lines "number:controllers:path"
    for (std::string line; std::getline(groups, line);) {
        const std::size_t first = line.find(':');
        const std::size_t second = first == std::string::npos ? first : line.find(':', first + 1);
        if (second == std::string::npos) {
            continue;
        }
        const std::string_view controllers = std::string_view(line).substr(first + 1, second - first - 1);
        const std::string path = line.substr(second + 1);
        if (controllers.empty()) {
            applyGroups(root + "/sys/fs/cgroup", path, kVersion2, status);
        } else if (listHolds(controllers, "memory")) {
            applyGroups(root + "/sys/fs/cgroup/memory", path, kVersion1, status);
        }
    }
    return status;
}

void qxOSMemoryStatus(uint64_t *totalPhys, uint64_t *availPhys) {
    QXMemoryStatus status;
    try {
        QXMemoryStatus now = qxReadMemoryStatus("");
        applyLimits(now);
        status = now;
    } catch (const std::bad_alloc &) { // no memory to ask how much there is
    }
    if (totalPhys != nullptr) {
        *totalPhys = status.totalPhys;
    }
    if (availPhys != nullptr) {
        *availPhys = status.availPhys;
    }
}
