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

// Maps at `at` if that place is free, or anywhere if it is null.
char *map(char *at, uint64_t size) {
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (at != nullptr ? MAP_FIXED_NOREPLACE : 0);
    void *const base = mmap(at, size, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    if (at != nullptr && base != at) { // a system that doesn't know the flag takes the place for a hint
        munmap(base, size);
        return nullptr;
    }
    return static_cast<char *>(base);
}

// A refused region costs one call of the system: a pool that can't be had is asked for in millions of sizes. One
// that was had is moved down to the boundary, if there is room below.
char *mapAligned(uint64_t size) {
    char *const base = map(nullptr, size);
    const uint64_t above = reinterpret_cast<uint64_t>(base) % kHugePage;
    if (above == 0 || map(base - above, above) == nullptr) {
        return base;
    }
    munmap(base - above + size, above);
    return base - above;
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
    void *const base = mapped >= kHugePage ? mapAligned(mapped) : map(nullptr, mapped);
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
