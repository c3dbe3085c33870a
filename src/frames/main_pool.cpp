// The main pool: one region of the system's for the data of all frames, and the heap that carves it.
//
//   state              mainPool  mainHeap  entered by
//   no pool            null      null      load; DFRAME_CLOSE; a region that couldn't be had
//   running            set       set       DFRAME_RESET; the first frame that needs it
//   pool without heap  set       null      no memory for the heap's records, or a region too small for one granule:
//                                          data goes to the local heap
//   heap without pool  null      set       DFRAME_CLOSE of the local side; the next frame for the pool makes both
//                                          anew
#include "frames.h"

#include "local/fork_locks.h"
#include "local/local_heap.h"
#include "trace/trace.h"
#include "util/exit.h"
#include "util/hold.h"

#include <algorithm>
#include <mutex>

namespace brenvole {

namespace {

// What is tried as long as nobody has said otherwise, in bytes.
constexpr uint64_t kDefaultPool = 524255000;
constexpr uint32_t kDefaultGranularity = 4096;
constexpr uint32_t kDefaultSmallest = 8192;

// The largest size ever asked of the system: a page less than 64 GiB.
constexpr uint64_t kLargestPool = 0xFFFFFF000;
// A refused size is lowered by the step as long as it is above the end.
constexpr uint64_t kStepDown = 32768;
constexpr uint64_t kStepDownEnd = 0x1000000;

// poolLock: the holder may enter again. A message sink that hears of a new pool may run commands, and these find the
// state as it then is.

// While DFRAME_RESET makes the pool, a sink's command that needs one makes none of its own. A sink may throw, and its
// thread may be cancelled: no flag outlives the command.
std::atomic<bool> resetting = false;
struct Resetting {
    const std::scoped_lock<std::recursive_mutex> hold{poolLock};
    Resetting() { resetting = true; }
    ~Resetting() { resetting = false; }
    Resetting(const Resetting &) = delete;
    Resetting &operator=(const Resetting &) = delete;
};

// ---- DFRAME_RESET ----------------------------------------------------------------------------------------------

// Step 3. A heap is idle only if no block lives and the free space is one segment.
uint32_t heapInUse(::DFHEAP *heap) {
    const QXHold hold(heap->Lock);
    uint32_t blocks = 0;
    uint32_t segments = 0;
    if (DFHEAP_State(heap, &blocks, &segments) != 0) {
        return DFMEM_E_BUSY;
    }
    return blocks != 0 || segments > 1 ? DFMEM_E_POINTER : 0;
}

// Steps 7 and 8: the size for what is wanted and what the system has; all of it unsigned, so that a negative wish is
// a huge one. With 2 bytes or more available, that is the wish, cut to the limit.
uint64_t poolSizeFor(uint64_t wish, uint64_t available) {
    constexpr double kShare = 0.8;   // of the available memory: the process needs some for itself
    constexpr uint64_t kFactor = 10; // shows through the wrap of its product alone
    constexpr uint64_t kThresholds[] = {0x4100000, 0x3000000, 0x2000000};
    const auto limit = static_cast<uint64_t>(static_cast<double>(available) * kShare);
    uint64_t wanted = wish * kFactor;
    if (limit != 0 && wanted > limit) {
        wanted = limit;
    }
    uint64_t size = wanted;
    if (available >= wanted) {
        size = wanted != 0 ? wanted : available;
    } else {
        for (const uint64_t threshold : kThresholds) {
            if (wanted >= threshold) {
                size = threshold;
                break;
            }
        }
    }
    return std::min(size, wish);
}

double mebibytes(double bytes) { return bytes / 1024 / 1024; }

// Step 10: what the step-down has left is lowered in tenths. Ends with a size of 0 if there is no region.
void *allocInTenths(std::atomic<uint64_t> &size) {
    constexpr uint64_t kTenths = 10;
    const auto step = static_cast<uint32_t>(size / kTenths);
    void *base = nullptr;
    while (base == nullptr) {
        if (size <= step || step == 0) { // a step of 0 would never end
            size = 0;
            break;
        }
        size -= step;
        base = mainPoolAlloc(size);
    }
    return base;
}

// ---- the ends of heap and pool ---------------------------------------------------------------------------------

void dropHeap() {
    if (::DFHEAP *const heap = mainHeap.exchange(nullptr)) {
        DFHEAP_Destroy(heap); // reports what is still out
    }
}

// If the heap stays, its blocks have no memory from here on.
void dropPool() {
    if (void *const pool = mainPool.exchange(nullptr)) {
        if (::DFHEAP *const heap = mainHeap) {
            heap->bRegionOurs = 0;
        }
        if (blockMemoryMatters()) { // their next user may access these addresses
            blockMemoryGiveBack({reinterpret_cast<uintptr_t>(pool), mainPoolSize, 0, 0, nullptr, 0});
        }
        qxOSVirtualFree(pool);
    }
}

// The region goes, even if an exception from a sink ends the report of what is still out.
void dropBoth() {
    try {
        dropHeap();
    } catch (...) {
        dropPool();
        throw;
    }
    dropPool();
}

::DFHEAP *createHeap(void *pool) {
    ::DFHEAP *const heap =
        DFHEAP_Create(0, reinterpret_cast<uintptr_t>(pool), mainPoolSize, mainGranularity, mainSmallest);
    if (heap != nullptr && blockMemoryMatters()) {
        heap->bRegionOurs = 1;
        heap->dwGuard = blockGuardsOn() ? mainGranularity : 0;
        blockMemoryForbid({reinterpret_cast<uintptr_t>(pool), mainPoolSize, 0, 0, nullptr, 0});
    }
    return heap;
}

// Steps 1 to 3 of the pool's stage: 1 there is one; 2 the region; 3 its heap. What couldn't be had, in words; else
// null.
const char *makePool() {
    const std::scoped_lock hold(poolLock);
    if (mainPool.load() != nullptr || resetting) { // 1
        return nullptr;
    }
    void *const pool = mainPoolAlloc(mainPoolSize); // 2; if it fails, the next try begins where this one ended
    if (pool == nullptr) {
        return "Unable to allocate main memory pool";
    }
    // A heap that has lost its pool is only forgotten. It goes before the new pool can be seen, so that no other
    // thread takes a block of the old one.
    mainHeap = nullptr;
    mainPool = pool;
    mainHeap = createHeap(pool); // 3
    return mainHeap.load() == nullptr ? "Unable to create main heap" : nullptr;
}

// Steps 4 to 12 of DFRAME_RESET.
uint64_t rebuild(int64_t param1) {
    dropBoth();         // 4, 5
    uint64_t total = 0; // 6
    uint64_t available = 0;
    qxOSMemoryStatus(&total, &available);
    mainPoolSize = poolSizeFor(static_cast<uint64_t>(param1), available);                                 // 7, 8
    ErrOut("Resizing AV Mem (MB) (Total=%2.2f , Available=%2.2f , Requested=%2.2f , Allocating=%2.2f ) ", // 9
           mebibytes(static_cast<double>(total)), mebibytes(static_cast<double>(available)),
           mebibytes(static_cast<double>(param1)), mebibytes(static_cast<double>(mainPoolSize)));
    void *base = mainPoolAlloc(mainPoolSize);
    if (base == nullptr) {
        base = allocInTenths(mainPoolSize); // 10
    }
    mainPool = base;
    if (base == nullptr) { // 11
        return frameWiden(ErrMsgOut(DFMEM_E_OUTOFMEMORY, "Brenvole re-allocation failed", 0, 0, 0, 0));
    }
    mainHeap = createHeap(base); // 12; without one the local heap serves
    ErrOut("AV Mem (actual alloc = %.3f Gb) ", mebibytes(static_cast<double>(mainPoolSize)) / 1024);
    return 0;
}

} // namespace

std::atomic<::DFHEAP *> mainHeap = nullptr;
std::atomic<void *> mainPool = nullptr;
std::atomic<uint64_t> mainPoolSize = kDefaultPool;
uint32_t mainGranularity = kDefaultGranularity;
uint32_t mainSmallest = kDefaultSmallest;

void *mainPoolAlloc(std::atomic<uint64_t> &size) {
    size = std::min(size.load(), kLargestPool);
    void *base = qxOSVirtualAlloc(size);
    while (base == nullptr && size > kStepDownEnd) {
        size -= kStepDown;
        base = qxOSVirtualAlloc(size);
    }
    return base;
}

bool mainPoolNeed(::DFHEAP *&heap) {
    if (mainPool.load() != nullptr) { // first: a heap that has lost its pool isn't taken for the next pool's
        heap = mainHeap;
        if (heap != nullptr) {
            return true;
        }
    }
    const char *const problem = makePool();
    if (problem != nullptr) {
        ErrFmtOut(QX_WARNING, 0, 0, "WARNING(dfmem): %s\n", problem); // after the lock has been left
    }
    heap = mainHeap;
    return problem == nullptr && !resetting;
}

// Steps: 1 nothing on the local side; 2 enough already; 3 in use; 4, 5 heap and region go; 6 what the system has;
// 7, 8 the size; 9 the region; 10 a smaller one; 11 none; 12 the heap.
uint64_t commandReset(uint32_t command, int64_t param1) {
    if ((command & DFRAME_FLAG_SYSHEAP) != 0) { // 1
        return 0;
    }
    ::DFHEAP *const heap = mainHeap;
    if (heap != nullptr) { // a pool without a heap is made anew, be it large enough or not
        if (mainPool.load() != nullptr && param1 != 0 &&
            param1 <= static_cast<int64_t>(mainPoolSize.load())) { // 2, signed
            return 0;
        }
        const uint32_t inUse = heapInUse(heap); // 3
        if (inUse != 0) {
            return frameRefuse(inUse, "Brenvole in use, no re-alloc(0x%lX)");
        }
    }
    const Resetting now;
    return rebuild(param1); // 4 to 12
}

// Steps: 1 it is told; 2 the cached block; 3 the heap; 4 the region; 5 the defaults; 6 the trace.
uint64_t commandClose(uint32_t command) {
    const bool system = (command & DFRAME_FLAG_SYSHEAP) == 0;
    ErrFmtOut(QX_STATUS, 0, 0, "STATUS(dfmem): %s\n", // 1
              system ? "dfmem:  Closing system heap" : "dfmem:  Closing NON-system heap");
    LHEAP_DropCache(); // 2
    if (system) {      // 3, 4
        dropBoth();
    } else {
        dropPool();
    }
    mainPoolSize = kDefaultPool; // 5
    mainGranularity = kDefaultGranularity;
    mainSmallest = kDefaultSmallest;
    TraceSnapshot("DFrameClose"); // 6
    return 0;
}

void mainPoolDetach() {
    if (qxInExit() && qxHasOtherThreads()) {
        if (::DFHEAP *const heap = mainHeap) {
            DFHEAP_ReportAtExit(heap);
        }
        return;
    }
    dropBoth();
}

} // namespace brenvole
