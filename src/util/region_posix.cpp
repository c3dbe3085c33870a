// Regions of the system: large, page-aligned, zero-filled. A release names only the base, so the lengths are
// kept here, outside the regions, which hold nothing of ours.
//
// By itself the system gives the addresses of a region that has gone to whoever asks next. But addresses are how the
// memory library tells its heaps apart: a pointer into a pool that is gone would then be taken for another pool's, or
// a block of the allocator's for the pool's. So regions lie in a part of the address space of their own, one behind
// the other, and none where another one was.
#include "exit.h"
#include "fork.h"
#include "qxutil.h"
#include "static_lock.h"

#include <cstdlib>
#include <mutex>

#include <sys/mman.h>
#include <sys/random.h>
#include <unistd.h>

namespace {

// A huge page of the system. The places are aligned to it, else the ends of a region would stay in small pages.
constexpr uint64_t kHugePage = 2u << 20;

// The part of the address space: far from where this system usually puts programs, and what they map. Where in its
// first half the first region lies is different in each process.
constexpr uint64_t kTiB = uint64_t{1} << 40;
constexpr uint64_t kPartStart = 24 * kTiB;
constexpr uint64_t kPartEnd = 72 * kTiB;

struct Region {
    Region *next;
    void *base;
    uint64_t mapped; // bytes, whole pages
};

// Under qxRegionLock.
Region *regions = nullptr;
uint64_t nextPlace = 0; // 0: none has been had yet

uint64_t roundUp(uint64_t size, uint64_t unit) { return (size + unit - 1) / unit * unit; }

uint64_t firstPlace() {
    uint64_t noise = 0;
    if (getrandom(&noise, sizeof noise, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof noise)) {
        noise = 0; // a system that has none yet: the first place of all
    }
    return kPartStart + noise % ((kPartEnd - kPartStart) / 2) / kHugePage * kHugePage;
}

// Lock held. The place is a wish: where somebody else's memory is, or under a system of other habits, the region
// comes to lie elsewhere. A refused region costs one call of the system: a pool that can't be had is asked for in
// millions of sizes.
void *mapRegion(uint64_t size) {
    if (nextPlace == 0) {
        nextPlace = firstPlace();
        qxHookExit();
    }
    if (nextPlace > kPartEnd - size) {
        nextPlace = kPartStart; // the oldest places again
    }
    void *const base =
        mmap(reinterpret_cast<void *>(nextPlace), size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    nextPlace += roundUp(size, kHugePage) + kHugePage; // a gap, so that no two are one mapping
    return base;
}

} // namespace

void *qxOSVirtualAlloc(uint64_t size) {
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    constexpr uint64_t kMost = 16 * kTiB; // more than any machine has; keeps the sums from wrapping
    if (size == 0 || size > kMost) {
        return nullptr;
    }
    auto *const region = static_cast<Region *>(std::malloc(sizeof(Region)));
    if (region == nullptr) {
        return nullptr;
    }
    const uint64_t mapped = roundUp(size, page);
    qxHookFork();
    const std::scoped_lock hold(qxRegionLock);
    void *const base = mapRegion(mapped);
    if (base == nullptr) {
        std::free(region);
        return nullptr;
    }
    if (mapped >= kHugePage) {
        madvise(base, mapped, MADV_HUGEPAGE); // a wish: a system without huge pages says no, and nothing is lost
    }
    *region = {regions, base, mapped};
    regions = region;
    return base;
}

// When the process ends, its other threads go on for a while, and a thread may be writing into a picture. The system
// takes all regions back a moment later.
void qxOSVirtualFree(void *base) {
    Region *found = nullptr;
    {
        const std::scoped_lock hold(qxRegionLock);
        for (Region **at = &regions; *at != nullptr; at = &(*at)->next) {
            if ((*at)->base == base) {
                found = *at;
                *at = found->next;
                break;
            }
        }
    }
    if (found == nullptr) {
        return;
    }
    if (!qxInExit()) {
        munmap(found->base, found->mapped);
    }
    std::free(found);
}
