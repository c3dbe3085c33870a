// Regions of the system: large, page-aligned, zero-filled. A release names only the base, so the lengths are
// kept here, outside the regions, which hold nothing of ours.
#include "qxutil.h"

#include <cstdlib>
#include <mutex>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// A huge page of the system. A region that can hold one is aligned to it, else its ends stay in small pages.
constexpr uint64_t kHugePage = 2u << 20;

struct Region {
    Region *next;
    void *base;
    uint64_t mapped; // bytes, whole pages
};

Region *regions = nullptr; // under regionLock
std::mutex regionLock;

uint64_t roundUp(uint64_t size, uint64_t unit) { return (size + unit - 1) / unit * unit; }

void *map(uint64_t size) {
    void *base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return base == MAP_FAILED ? nullptr : base;
}

// Maps a little more than asked and gives back what lies in front of the aligned base and behind the end.
void *mapAligned(uint64_t size) {
    auto *const whole = static_cast<char *>(map(size + kHugePage));
    if (whole == nullptr) {
        return map(size); // so near to the limit that only the bare size fits
    }
    const uint64_t front = roundUp(reinterpret_cast<uint64_t>(whole), kHugePage) - reinterpret_cast<uint64_t>(whole);
    if (front != 0) {
        munmap(whole, front);
    }
    if (front != kHugePage) {
        munmap(whole + front + size, kHugePage - front);
    }
    return whole + front;
}

} // namespace

void *qxOSVirtualAlloc(uint64_t size) {
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    constexpr uint64_t kMost = UINT64_C(1) << 62; // above any address space; keeps the sums from wrapping
    if (size == 0 || size > kMost) {
        return nullptr;
    }
    auto *const region = static_cast<Region *>(std::malloc(sizeof(Region)));
    if (region == nullptr) {
        return nullptr;
    }
    const uint64_t mapped = roundUp(size, page);
    void *const base = mapped >= kHugePage ? mapAligned(mapped) : map(mapped);
    if (base == nullptr) {
        std::free(region);
        return nullptr;
    }
    if (mapped >= kHugePage) {
        madvise(base, mapped, MADV_HUGEPAGE); // a wish: a system without huge pages says no, and nothing is lost
    }
    const std::scoped_lock hold(regionLock);
    *region = {regions, base, mapped};
    regions = region;
    return base;
}

void qxOSVirtualFree(void *base) {
    Region *found = nullptr;
    {
        const std::scoped_lock hold(regionLock);
        for (Region **at = &regions; *at != nullptr; at = &(*at)->next) {
            if ((*at)->base == base) {
                found = *at;
                *at = found->next;
                break;
            }
        }
    }
    if (found != nullptr) {
        munmap(found->base, found->mapped);
        std::free(found);
    }
}
