#include "harness.h"
#include "local/dfmem_lock.h"
#include "local/local_block.h"
#include "local/local_heap.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <sys/mman.h>
#include <unistd.h>

using namespace brenvole;

namespace {

constexpr uintptr_t kReach = 278527; // bytes above the data from which a block is still found

struct LocalHeap : testing::Test {
    LogCapture log;
    DFRAME frame = {};
    int64_t outBefore = blocksOut();

    LocalHeap() { dfmemLockCreate(); }
    ~LocalHeap() override {
        replaceAlloc = nullptr, replaceFree = nullptr;
        LHEAP_DropCache();
        EXPECT_EQ(local_allocs, 0u);
        EXPECT_EQ(localBytes, 0u);
        EXPECT_EQ(blocksOut(), outBefore);
        EXPECT_EQ(log.take(), Texts{});
        // No lock is held: another thread gets through.
        std::thread([] {
            qxOSEnterCriticalSection(&dfmemLock);
            qxOSLeaveCriticalSection(&dfmemLock);
        }).join();
    }
    uint8_t *make(uint32_t size) { return LHEAP_Alloc(size, &frame, nullptr, 0); }
    static PHALLOC *find(const void *at, uintptr_t above = 0) {
        return LHEAP_Find(reinterpret_cast<uintptr_t>(at) + above);
    }
    static PHALLOC *descriptor(uint8_t *data) { return reinterpret_cast<PHALLOC *>(data - kDescriptorArea); }
    static int32_t drop(uint8_t *data) { return LHEAP_Free(descriptor(data), nullptr, 0); }
};

TEST_F(LocalHeap, BlockLayout) {
    for (const auto &[size, block] : {std::pair{100000u, 123008u}, {4096u, 24704u}, {1u, 24704u}, {8193u, 32896u}}) {
        uint8_t *const data = make(size);
        EXPECT_EQ(lastRequest(), block);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % 16384, 0u);
        EXPECT_EQ(+frame.lpData, data);
        const PHALLOC &record = *descriptor(data);
        EXPECT_EQ((record.lpAddr + 16511) & ~uint64_t{16383}, reinterpret_cast<uint64_t>(data));
        EXPECT_EQ(record.qwOffset + static_cast<uint32_t>(record.lRefCount), 1u);
        EXPECT_EQ(record.qwSize, size);
        EXPECT_EQ(record.pOwner, reinterpret_cast<uint64_t>(&frame));
        EXPECT_EQ(localBytes, size);
        std::memset(data, 1, size);
        EXPECT_EQ(drop(data), 0);
        LHEAP_DropCache();
    }
}

TEST_F(LocalHeap, Refusals) {
    EXPECT_EQ(LHEAP_Alloc(4096, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(make(0), nullptr);
    EXPECT_EQ(LHEAP_Free(nullptr, nullptr, 0), -1);
    EXPECT_EQ(log.take(), (Texts{"LHEAP_Alloc called with NULL pDF", "LHEAP_Alloc called with zero size",
                                 "LHEAP_Free called with NULL pHA"}));
    const uint64_t before = requests();
    EXPECT_EQ(make(0xFFFFA001), nullptr); // its block size doesn't fit 32 bits
    EXPECT_EQ(requests(), before);
    failNth(1);
    EXPECT_EQ(make(0xFFFFA000), nullptr);
    EXPECT_EQ(lastRequest(), 0xFFFFA000u + 16512);
    EXPECT_EQ(+frame.lpData, nullptr);
    failNth(0);
}

TEST_F(LocalHeap, FoundUpToItsReach) {
    uint8_t *const data = make(400000);
    PHALLOC *const record = descriptor(data);
    for (const bool remembered : {true, false}) {
        if (!remembered) { localForget(record); }
        for (const uintptr_t above : {uintptr_t{0}, uintptr_t{1}, uintptr_t{16383}, uintptr_t{16384}, kReach}) {
            EXPECT_EQ(find(data, above), record) << above;
        }
        EXPECT_EQ(find(data, kReach + 1), nullptr);
        for (const auto &[references, found] : {std::pair{8192, true}, {8193, false}, {0, false}, {-1, false}}) {
            record->lRefCount = references;
            EXPECT_EQ(find(data) != nullptr, found) << references;
        }
        record->lRefCount = 1;
    }
    // Another block's descriptor inside the data is nearer and wins, also behind its own data's end.
    DFRAME other = {};
    static uint8_t *inside;
    inside = data + 2 * 16384;
    replaceAlloc = [](uint32_t) -> void * { return inside; };
    replaceFree = [](void *) {};
    uint8_t *const nearer = LHEAP_Alloc(4096, &other, nullptr, 0);
    replaceAlloc = nullptr;
    EXPECT_EQ(nearer, inside + 16384);
    EXPECT_EQ(find(nearer, 100000), descriptor(nearer));
    EXPECT_EQ(find(data, 16384), record);
    EXPECT_EQ(drop(nearer), 0); // cached: no longer found
    EXPECT_EQ(find(nearer, 100000), record);
    LHEAP_DropCache();
    replaceFree = nullptr;
    EXPECT_EQ(drop(data), 0);
}

TEST_F(LocalHeap, AnyAddressMayBeAsked) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    uint8_t *const data = make(20000);
    auto *const hole = static_cast<char *>(mmap(nullptr, 64 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    auto *const gone = static_cast<char *>(mmap(nullptr, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    munmap(gone, page);
    int onStack = 0;
    void *const code = reinterpret_cast<void *>(&std::malloc);
    const void *const wild[] = {nullptr, hole, hole + 64 * page, gone, &onStack, code, environ, data - 1, &frame};
    const auto askAll = [&] {
        for (const void *at : wild) { EXPECT_EQ(find(at), nullptr) << at; }
        for (uint64_t bits = 0; bits < 64; ++bits) { // small, kernel's, non-canonical, wrapping
            EXPECT_EQ(LHEAP_Find(uint64_t{1} << bits), nullptr);
            EXPECT_EQ(LHEAP_Find(~uint64_t{0} << bits), nullptr);
        }
        EXPECT_EQ(find(data), descriptor(data));
    };
    askAll();
    // With every signal blocked, as worker threads of hosts have it: a fault would end the process.
    std::thread([&] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        askAll();
    }).join();
    munmap(hole, 64 * page);
    EXPECT_EQ(drop(data), 0);
}

TEST_F(LocalHeap, CacheKeepsTheLargest) {
    const auto expectCounts = [](uint64_t allocs, uint64_t bytes) {
        EXPECT_EQ(local_allocs, allocs);
        EXPECT_EQ(localBytes, bytes);
    };
    EXPECT_EQ(drop(make(4096)), 0); // an empty cache takes whatever is released first
    expectCounts(1, 4096);
    EXPECT_EQ(drop(make(4096)), 0); // one of the same size doesn't replace it
    expectCounts(1, 4096);
    uint8_t *const big = make(1000000);
    std::memset(big, 0x5A, 1000000);
    EXPECT_EQ(drop(big), 0); // pushes the small one out
    expectCounts(1, 1000000);
    EXPECT_EQ(find(big), nullptr);
    for (const auto &[size, served] :
         {std::pair{688802u, false}, {1000001u, false}, {688803u, true}, {1000000u, true}}) {
        const uint64_t before = requests();
        uint8_t *const data = make(size);
        EXPECT_EQ(requests(), before + (served ? 0 : 1)) << size;
        EXPECT_EQ(descriptor(data)->qwSize, served ? 1000000u : size);
        EXPECT_EQ(find(data), descriptor(data));
        if (served) {
            EXPECT_EQ(data, big);
            EXPECT_EQ(data[999999], 0x5A); // not cleared
            expectCounts(1, 1000000);
            EXPECT_EQ(drop(data), 0);
        } else {
            expectCounts(2, 1000000 + size);
            descriptor(data)->qwSize = 5; // released as a small one, so that the cache stays as it is
            localBytes = localBytes - size + 5;
            EXPECT_EQ(drop(data), 0);
        }
        expectCounts(1, 1000000);
    }
    EXPECT_EQ(drop(big), 0); // a second release of the cached block
    EXPECT_EQ(log.take(), Texts{"BRENVOLE:Attempt to free last big alloc "});
    expectCounts(1, 1000000);
    localBytes = 10; // smaller than the cached size: clamped
    LHEAP_DropCache();
    expectCounts(0, 0);
    LHEAP_DropCache(); // empty: changes nothing
    expectCounts(0, 0);
}

// A flipped bit in any byte of the guard words or of the self pointer is noticed, and the block stays.
TEST_F(LocalHeap, DamageIsNoticed) {
    uint8_t *const data = make(5000);
    PHALLOC *const record = descriptor(data);
    const std::string at = hex16(reinterpret_cast<uint64_t>(record));
    const std::string guards = "LHEAP_Free: PHALLOC magic corrupted - possible overwrite at 0x" + at;
    const std::string self = "LHEAP_Free: PHALLOC self-pointer corrupted at 0x" + at;
    const auto damage = [&](std::size_t offset, std::size_t size, const std::string &text) {
        for (std::size_t byte = offset; byte < offset + size; ++byte) {
            reinterpret_cast<uint8_t *>(record)[byte] ^= 0x10;
            EXPECT_EQ(drop(data), -1) << byte;
            EXPECT_EQ(find(data), nullptr) << byte;
            EXPECT_EQ(log.take(), Texts{text});
            reinterpret_cast<uint8_t *>(record)[byte] ^= 0x10;
        }
    };
    for (const std::size_t offset :
         {offsetof(PHALLOC, dwGuard1), offsetof(PHALLOC, dwGuard2), offsetof(PHALLOC, dwGuard3),
          offsetof(PHALLOC, dwGuard4), offsetof(PHALLOC, dwGuard5), offsetof(PHALLOC, dwGuard6)}) {
        damage(offset, 4, guards);
    }
    damage(offsetof(PHALLOC, pSelf), 8, self);
    record->qwOffset = 1; // no guard, but a local record has none
    EXPECT_EQ(find(data), nullptr);
    record->qwOffset = 0;
    EXPECT_EQ(record->lRefCount, 1);
    EXPECT_EQ(drop(data), 0);
}

const std::string kAllocWarning = "WARNING(dfmem): Exception allocating local audio video memory\n";
const std::string kFreeWarning = "WARNING(dfmem): Exception freeing audio video memory\n";

TEST_F(LocalHeap, AllocationFaults) {
    static void *const page = mmap(nullptr, 65536, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    static int freed = 0;
    replaceFree = [](void *) { ++freed; };
    replaceAlloc = [](uint32_t) -> void * { throw std::runtime_error("no memory"); };
    EXPECT_EQ(make(4096), nullptr);
    EXPECT_EQ(log.take(), Texts{kAllocWarning});
    replaceAlloc = [](uint32_t) { return page; }; // memory that faults
    EXPECT_EQ(make(4096), nullptr);
    EXPECT_EQ(log.take(), Texts{kAllocWarning});
    EXPECT_EQ(freed, 1); // not lost
    replaceAlloc = nullptr;
    replaceFree = nullptr;
    mprotect(page, 65536, PROT_READ); // a frame that can't be written: nothing is counted, nothing lost
    EXPECT_EQ(LHEAP_Alloc(4096, static_cast<PDFRAME>(page), nullptr, 0), nullptr);
    EXPECT_EQ(log.take(), Texts{"WARNING(dfmem): Exception settinging local audio video memory\n"});
    qxSetLogSink([](uint32_t, const char *, void *) { throw 1; }, nullptr); // not even that keeps the lock held
    EXPECT_EQ(LHEAP_Alloc(4096, static_cast<PDFRAME>(page), nullptr, 0), nullptr);
    qxSetLogSink(nullptr, nullptr);
    EXPECT_EQ(blocksOut(), outBefore);
    munmap(page, 65536);
}

TEST_F(LocalHeap, ReleaseFaults) {
    static bool thrown;
    const auto throwOnce = [](void *block) {
        if (!std::exchange(thrown, true)) { throw std::runtime_error("free"); }
        replaceFree = nullptr;
        QXFree(block);
    };
    uint8_t *const first = make(5000);
    void *const firstBlock = reinterpret_cast<void *>(descriptor(first)->lpAddr);
    uint8_t *const second = make(6000);
    uint8_t *const third = make(100);
    void *const thirdBlock = reinterpret_cast<void *>(descriptor(third)->lpAddr);
    EXPECT_EQ(drop(first), 0); // cached
    replaceFree = throwOnce;
    thrown = false;
    EXPECT_EQ(drop(second), 0); // pushes the first out, whose release throws under the lock
    EXPECT_EQ(log.take(), Texts{kFreeWarning});
    thrown = false;
    EXPECT_EQ(drop(third), 0); // released outside the lock
    EXPECT_EQ(log.take(), Texts{kFreeWarning});
    EXPECT_EQ(localBytes, 6000u); // the second is the cached one
    replaceFree = nullptr;
    QXFree(firstBlock); // their release threw, so they are still ours
    QXFree(thirdBlock);
    auto *const hole = mmap(nullptr, 65536, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(LHEAP_Free(static_cast<PHALLOC *>(hole), nullptr, 0), -1); // a descriptor that can't be read
    EXPECT_EQ(log.take(), Texts{kFreeWarning});
    munmap(hole, 65536);
}

} // namespace
