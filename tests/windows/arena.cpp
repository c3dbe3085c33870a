// QXUtil's allocator without reuse, and a clock that moves with each look at it: no two blocks of a run have one
// address, so that what a run does can't depend on where a system puts its blocks, nor on how fast it is.
#include "util/qxutil.h"

#include <atomic>
#include <cstdlib>

extern "C" void *QXAlloc(uint32_t size) {
    constexpr uint64_t kArena = uint64_t{3} << 30; // reserved; what is used of it counts
    constexpr uint64_t kAlignment = 16;
    static char *const arena = static_cast<char *>(std::malloc(kArena));
    static std::atomic<uint64_t> used = 0;
    const uint64_t at = used.fetch_add((uint64_t{size} + kAlignment - 1) / kAlignment * kAlignment);
    return arena != nullptr && at + size <= kArena ? arena + at : nullptr;
}

extern "C" void QXFree(void *) {}

extern "C" uint64_t qxOSGetTimeMs() {
    static std::atomic<uint64_t> now = 0;
    return ++now;
}
