#include "harness.h"
#include "local/dfmem_lock.h"
#include "local/local_block.h"
#include "local/local_heap.h"
#include "util/hold.h"

#include <gtest/gtest.h>

#include <cstring>

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
        onThreads(1, [](int) { const QXHold hold(dfmemLock); });
    }
    uint8_t *make(uint32_t size) { return LHEAP_Alloc(size, &frame, nullptr, 0); }
    static PHALLOC *find(const void *at, uintptr_t above = 0) {
        return LHEAP_Find(reinterpret_cast<uintptr_t>(at) + above);
    }
    static PHALLOC *descriptor(uint8_t *data) { return reinterpret_cast<PHALLOC *>(data - kDescriptorArea); }
    static int32_t drop(uint8_t *data) { return LHEAP_Free(descriptor(data), nullptr, 0); }
};

TEST_F(LocalHeap, Refusals) {
    EXPECT_EQ(LHEAP_Alloc(4096, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(LHEAP_Free(nullptr, nullptr, 0), -1);
    EXPECT_EQ(log.take(), (Texts{"LHEAP_Alloc called with NULL pDF", "LHEAP_Free called with NULL pHA"}));
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
    EXPECT_EQ(drop(data), 0);
}

// What passes for a descriptor inside the data of a block, made up or left over, isn't one; in memory that no block
// of the heap's has, it is.
TEST_F(LocalHeap, LookAlikesInData) {
    constexpr uintptr_t kPiece = 16384;
    const auto forge = [&](uint8_t *below, const PHALLOC *like) {
        auto *const record = new (descriptor(below)) PHALLOC(*like);
        record->pSelf = record;
        record->lpAddr = reinterpret_cast<uint64_t>(this);
        return record;
    };
    uint8_t *const data = make(900000), *const big = make(1000000);
    for (uint8_t *const block : {data, big}) {
        for (uintptr_t at = kPiece; at < 900000; at += kPiece) { forge(block + at, descriptor(block)); }
    }
    drop(big); // cached: what lies in it is nobody's
    for (uintptr_t at = 0; at < 900000; at += 4000) {
        EXPECT_EQ(find(data, at), at <= kReach ? descriptor(data) : nullptr) << at;
        EXPECT_EQ(find(big, at), nullptr) << at;
    }
    void *const pages = systemReserve(9 * kPiece);
    systemProtect(pages, 9 * kPiece, Access::write);
    auto *const own =
        reinterpret_cast<uint8_t *>((reinterpret_cast<uintptr_t>(pages) + kPiece - 1) / kPiece * kPiece);
    const PHALLOC *const made = forge(own + kPiece, descriptor(data)); // another library's, say
    EXPECT_EQ(find(own, 5 * kPiece), made);
    // Two blocks whose notes share a place: none is noted twice, or stays when its block has gone.
    std::vector<PHALLOC *> noted;
    for (uintptr_t at = 2 * kPiece; at < 8 * kPiece; at += kPiece) {
        noted.push_back(forge(own + at, made));
        noted.back()->qwSize = 3 * kPiece;
    }
    for (int round = 0; round < 3; ++round) {
        for (PHALLOC *const record : noted) { localRemember(record); }
        for (PHALLOC *const record : noted) { localForget(record); }
        for (PHALLOC *const record : noted) { record->lRefCount = 0; }
        EXPECT_EQ(find(own, 7 * kPiece), made);
        for (PHALLOC *const record : noted) { record->lRefCount = 1; }
    }
    systemRelease(pages, 9 * kPiece);
    EXPECT_EQ(drop(data), 0);
}

// Even with every signal blocked, as worker threads of hosts have it: a fault would end the process.
TEST_F(LocalHeap, AnyAddressMayBeAsked) {
    constexpr std::size_t kPages = 1 << 20;
    uint8_t *const data = make(20000);
    static void *hole = nullptr;
    hole = systemReserve(kPages);
    void *const gone = systemReserve(kPages);
    systemRelease(gone, kPages);
    systemProtect(hole, kPages, Access::write); // a block that was in the hole is forgotten with its release
    replaceAlloc = [](uint32_t) { return hole; };
    replaceFree = [](void *) {};
    uint8_t *const released = make(600000);
    replaceAlloc = nullptr;
    EXPECT_EQ(drop(make(700000)), 0); // cached, which the smaller one then isn't
    EXPECT_EQ(drop(released), 0);
    replaceFree = nullptr;
    systemProtect(hole, kPages, Access::none);
    onThreads(1, [&](int) {
        systemBlockSignals();
        for (const void *at : std::initializer_list<const void *>{hole, gone, released, "text", data - 1}) {
            EXPECT_EQ(find(at), nullptr) << at;
        }
        for (uint64_t bits = 0; bits < 64; ++bits) { // null, small, kernel's, non-canonical, wrapping
            EXPECT_EQ(LHEAP_Find(uint64_t{1} << bits), nullptr);
            EXPECT_EQ(LHEAP_Find(~uint64_t{0} << bits), nullptr);
        }
        EXPECT_EQ(LHEAP_Find(0), nullptr);
        EXPECT_EQ(find(data), descriptor(data));
    });
    systemRelease(hole, kPages);
    EXPECT_EQ(drop(data), 0);
}

// The cached block serves from a threshold up to its own size.
TEST_F(LocalHeap, CacheServesWhatItFits) {
    uint8_t *const big = make(1000000);
    std::memset(big, 0x5A, 1000000);
    EXPECT_EQ(drop(big), 0);
    EXPECT_EQ(find(big), nullptr);
    for (const auto &[size, served] : {std::pair{688802u, false}, {688803u, true}, {1000000u, true}}) {
        const uint64_t before = requests();
        uint8_t *const data = make(size);
        EXPECT_EQ(requests(), before + (served ? 0 : 1)) << size;
        EXPECT_EQ(localBytes, served ? 1000000 : 1000000 + size);
        EXPECT_TRUE(!served || data[999999] == 0x5A); // not cleared
        EXPECT_EQ(drop(data), 0);
    }
    EXPECT_EQ(drop(big), 0); // a second release of the cached block
    EXPECT_EQ(log.take(), Texts{"BRENVOLE:Attempt to free last big alloc "});
    localBytes = 10; // smaller than the cached size: clamped when it goes
}

// A flipped bit in any byte of the guard words or of the self pointer is noticed, and the block stays.
TEST_F(LocalHeap, DamageIsNoticed) {
    uint8_t *const data = make(5000);
    PHALLOC *const record = descriptor(data);
    const std::string at = hex16(reinterpret_cast<uint64_t>(record));
    constexpr std::size_t kSelf = offsetof(PHALLOC, pSelf);
    for (const std::size_t word :
         {offsetof(PHALLOC, dwGuard1), offsetof(PHALLOC, dwGuard2), offsetof(PHALLOC, dwGuard3),
          offsetof(PHALLOC, dwGuard4), offsetof(PHALLOC, dwGuard5), offsetof(PHALLOC, dwGuard6), kSelf, kSelf + 4}) {
        const bool self = word / 8 == kSelf / 8;
        for (std::size_t byte = word; byte < word + 4; ++byte) {
            reinterpret_cast<uint8_t *>(record)[byte] ^= 0x10;
            EXPECT_EQ(drop(data), -1) << byte;
            EXPECT_EQ(find(data), nullptr) << byte;
            EXPECT_EQ(log.take(),
                      Texts{self ? "LHEAP_Free: PHALLOC self-pointer corrupted at 0x" + at
                                 : "LHEAP_Free: PHALLOC magic corrupted - possible overwrite at 0x" + at});
            reinterpret_cast<uint8_t *>(record)[byte] ^= 0x10;
        }
    }
    record->qwOffset = 1; // no guard, but a local record has none
    EXPECT_EQ(find(data), nullptr);
    record->qwOffset = 0;
    EXPECT_EQ(record->lRefCount, 1);
    EXPECT_EQ(drop(data), 0);
}

TEST_F(LocalHeap, AllocationFaults) {
    static void *const page = systemReserve(65536);
    static int freed = 0;
    replaceFree = [](void *) { ++freed; };
    replaceAlloc = [](uint32_t) { return page; }; // memory that faults
    EXPECT_EQ(make(4096), nullptr);
    EXPECT_EQ(log.take(), Texts{"WARNING(dfmem): Exception allocating local audio video memory\n"});
    EXPECT_EQ(freed, 1); // not lost
    replaceAlloc = nullptr;
    replaceFree = nullptr;
    systemProtect(page, 65536, Access::read); // a frame that can't be written: nothing is counted, nothing lost
    EXPECT_EQ(LHEAP_Alloc(4096, static_cast<PDFRAME>(page), nullptr, 0), nullptr);
    EXPECT_EQ(log.take(), Texts{"WARNING(dfmem): Exception settinging local audio video memory\n"});
    qxSetLogSink([](uint32_t, const char *, void *) { throw 1; }, nullptr); // not even that keeps the lock held
    EXPECT_EQ(LHEAP_Alloc(4096, static_cast<PDFRAME>(page), nullptr, 0), nullptr);
    qxSetLogSink(nullptr, nullptr);
    systemRelease(page, 65536);
}

TEST_F(LocalHeap, ReleaseFaults) {
    const Texts warning = {"WARNING(dfmem): Exception freeing audio video memory\n"};
    uint8_t *const first = make(5000);
    void *const block = reinterpret_cast<void *>(descriptor(first)->lpAddr);
    uint8_t *const second = make(6000);
    EXPECT_EQ(drop(first), 0); // cached
    replaceFree = [](void *) { throw 1; };
    EXPECT_EQ(drop(second), 0); // pushes the first out, whose release throws under the lock
    EXPECT_EQ(log.take(), warning);
    EXPECT_EQ(localBytes, 6000u); // the second is the cached one
    replaceFree = nullptr;
    QXFree(block); // its release threw, so it is still ours
    EXPECT_EQ(LHEAP_Free(reinterpret_cast<PHALLOC *>(4096), nullptr, 0), -1); // a descriptor that can't be read
    EXPECT_EQ(log.take(), warning);
}

} // namespace
