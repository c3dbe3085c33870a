#include "harness.h"
#include "heap_driver.h"
#include "local/counters.h"
#include "phys/heap.h"

#include <brenvole/dframe.h>

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <utility>

using namespace brenvole;

// Strikes at a call of the list operations that move records, and at as many behind it as are to be struck.
enum class ListFault { refuse, throwBefore, throwBehind };
static ListFault listFault;
static int listCallsLeft = 0; // 0: never
static int listStrikes = 1;

template <class Result, class... Arguments> static Result listCall(const char *name, Arguments... arguments) {
    const bool strikes = listCallsLeft > 0 && --listCallsLeft == 0;
    if (strikes) { listCallsLeft = --listStrikes > 0 ? 1 : -1; }
    if (strikes && listFault == ListFault::throwBefore) { throw 1; }
    if (strikes && listFault == ListFault::refuse) { return {}; }
    const Result result = reinterpret_cast<Result (*)(Arguments...)>(systemReplaced(name))(arguments...);
    if (strikes) { throw 1; }
    return result;
}

extern "C" uint32_t d_ListAddHead(d_List *l, d_ListNode *n) { return listCall<uint32_t>("d_ListAddHead", l, n); }
extern "C" uint32_t d_ListAddTail(d_List *l, d_ListNode *n) { return listCall<uint32_t>("d_ListAddTail", l, n); }
extern "C" d_ListNode *d_ListRemove(d_List *l, d_ListNode *n) { return listCall<d_ListNode *>("d_ListRemove", l, n); }
extern "C" uint32_t d_ListInsert(d_List *l, d_ListNode *after, d_ListNode *n) {
    return listCall<uint32_t>("d_ListInsert", l, after, n);
}

// As a QXUtil has them that takes no null.
extern "C" d_ListNode *d_ListNext(d_ListNode *n) { return n == nullptr ? ADD_FAILURE(), n : n->lpNext; }
extern "C" d_ListNode *d_ListPrev(d_ListNode *n) { return n == nullptr ? ADD_FAILURE(), n : n->lpPrev; }

static std::atomic<const QXCRITICALSECTION *> wanted = nullptr; // the lock that was last asked for
extern "C" void qxOSEnterCriticalSection(QXCRITICALSECTION *lock) {
    static const auto enter =
        reinterpret_cast<decltype(&qxOSEnterCriticalSection)>(systemReplaced("qxOSEnterCriticalSection"));
    wanted = lock;
    enter(lock);
}

namespace {

constexpr uint64_t kBase = 0x100000; // nothing is mapped there: a heap that touched its region would fault
constexpr uint64_t kLength = 0x100000;

struct Heap : testing::Test {
    LogCapture log;
    int64_t outBefore = blocksOut();
    uint64_t countedBefore = phys_allocs;
    DFHEAP *heap = DFHEAP_Create(0x5000, kBase, kLength, 4096, 8192);

    Heap() { log.take(); } // of the list-search mode, if it is on
    ~Heap() override {
        failNth(0);
        DFHEAP_Destroy(heap);
        EXPECT_EQ(log.take().size(), 1u); // the closing words
        EXPECT_EQ(blocksOut(), outBefore);
        EXPECT_EQ(phys_allocs, countedBefore);
    }
    uint64_t take(uint64_t size, uint64_t owner = 0) { return DFHEAP_Alloc(heap, &size, owner, nullptr); }
    void drop(uint64_t block) { EXPECT_EQ(DFHEAP_Free(heap, block, nullptr), 0); }
    // Another heap, with so many holes between blocks that stay: from 64 on the index is a tree. Its map has groups.
    std::vector<uint64_t> remake(int holes) {
        DFHEAP_Destroy(heap);
        heap = DFHEAP_Create(0, kBase, holes == 0 ? kLength : 16 * kLength, 4096, 8192);
        log.take();
        std::vector<uint64_t> stay, hole;
        for (int i = 0; i < holes; ++i) { hole.push_back(take(20480)), stay.push_back(take(12288)); }
        for (const uint64_t block : hole) { drop(block); }
        return stay;
    }
    // Whole again, and no lock is held: another thread gets through.
    void checkEmpty() {
        EXPECT_EQ(_DFHEAP_Check(heap), 0u);
        EXPECT_EQ(DFHEAP_LargestAvail(heap), heap->qwLength);
        onThreads(1, [&](int) { drop(take(4096)); });
    }
};

TEST(HeapModel, RandomOperations) {
    for (unsigned seed = 1; seed <= 300; ++seed) {
        std::mt19937 random(seed);
        std::vector<uint8_t> input(1500);
        for (uint8_t &byte : input) { byte = static_cast<uint8_t>(random()); }
        ASSERT_EQ(driveHeap(input, seed % 4 == 0), "") << "seed " << seed;
    }
}

// What a walk of FreeList finds.
template <class Fits> PHALLOC *firstBy(d_ListNode *node, d_ListNode *(*next)(d_ListNode *), const Fits &fits) {
    while (node != nullptr && !fits(physRecord(node))) { node = next(node); }
    return physRecord(node);
}

// Index and walk give one answer at each step, through times of many segments and of few, of want of memory for the
// index and of its being dropped.
TEST(HeapIndex, IsTheWalk) {
    const LogCapture log;
    const bool slow = systemIsSlow || kSanitized;
    const int64_t outBefore = blocksOut();
    for (const uint64_t granules : {uint64_t{slow ? 5001u : 70'001u}, uint64_t{4096}, uint64_t{255}}) {
        std::mt19937 random(static_cast<unsigned>(granules));
        DFHEAP *const heap = DFHEAP_Create(0, kBase, granules * 48, 48, 6 * 48); // no power of two
        std::vector<uint64_t> blocks;
        uint64_t fullTimes = 0;
        uint32_t most = 0;
        const unsigned steps = slow ? 20'000 : 500'000;
        for (unsigned step = 0; step < steps; ++step) {
            const bool filling = step / (granules / 2 + 500) % 2 == 0; // to exhaustion, and back to nearly nothing
            if (step % 5000 == 0) { freeIndexSpoil(heap); }
            if (step % 7000 < 2000) { failNth(1); } // no tree, or no record
            const uint64_t size = (1 + random() % (random() % 16 == 0 ? 300 : 12)) * 48;
            const uint64_t addr = heap->lpBase + random() % (heap->qwLength / 48) * 48;
            const uint32_t segments = d_ListCount(&heap->FreeList);
            most = std::max(most, segments);
            if (freeIndexReady(heap) && step % (segments / 64 + 1) == 0) { // walks take their time
                const auto fits = [&](const PHALLOC *segment) { return segment->qwSize >= size; };
                const auto below = [&](const PHALLOC *segment) { return segment->lpAddr < addr; };
                ASSERT_EQ(freeIndexFit(heap, size, true), firstBy(d_ListHead(&heap->FreeList), d_ListNext, fits));
                ASSERT_EQ(freeIndexFit(heap, size, false), firstBy(d_ListTail(&heap->FreeList), d_ListPrev, fits));
                ASSERT_EQ(freeIndexBefore(heap, addr), firstBy(d_ListTail(&heap->FreeList), d_ListPrev, below));
            }
            if (blocks.empty() || random() % 8 < (filling ? 6u : 2u)) {
                uint64_t wanted = size;
                blocks.push_back(DFHEAP_Alloc(heap, &wanted, 0, nullptr));
                if (blocks.back() == 0) { blocks.pop_back(), fullTimes += step % 7000 < 2000 ? 0 : 1; }
            } else {
                std::swap(blocks[random() % blocks.size()], blocks.back());
                ASSERT_EQ(DFHEAP_Free(heap, blocks.back(), nullptr), 0);
                blocks.pop_back();
            }
            failNth(0);
            if (step % 1000 == 0) { ASSERT_EQ(_DFHEAP_Check(heap), 0u) << step; }
        }
        EXPECT_TRUE(fullTimes != 0 && most > granules / 40) << fullTimes << ' ' << most;
        for (const uint64_t block : blocks) { DFHEAP_Free(heap, block, nullptr); }
        EXPECT_EQ(_DFHEAP_Check(heap), 0u);
        if (granules == 4096) { EXPECT_EQ(DFHEAP_Resize(heap, 0, kBase, granules * 4096, 4096, 0), 0); }
        DFHEAP_Destroy(heap);
        EXPECT_EQ(blocksOut(), outBefore);
    }
}

TEST_F(Heap, GeometryIsRoundedOrRefused) {
    const uint64_t last = UINT64_MAX - 0xFFF; // the last page; nothing may add to its end
    EXPECT_EQ(DFHEAP_Resize(heap, 1, last, 0x1000, 0x1000, 0), 0);
    EXPECT_TRUE(heap->lpBase == last && heap->qwLength == 0x1000 && heap->qwPhysOffset == 0x1000);
    for (const uint64_t addr : {uint64_t{0}, last - 1, last, UINT64_MAX}) {
        EXPECT_EQ(DFHEAP_Contains(heap, addr), addr >= last ? 1 : 0) << addr;
        EXPECT_EQ(DFHEAP_Contains(nullptr, addr), 0);
    }
    constexpr uint64_t kRefused[][4] = {{0, 0, 9, 1}, {0, 9, 0, 1}, {0, 9, 9, 0}, {UINT64_MAX, 4096, 4096, 4096}};
    for (const auto &[offset, base, length, granule] : kRefused) {
        EXPECT_EQ(DFHEAP_Create(offset, base, length, static_cast<uint32_t>(granule), 0), nullptr) << base;
        EXPECT_EQ(DFHEAP_Resize(heap, offset, base, length, static_cast<uint32_t>(granule), 0), -1) << base;
    }
    EXPECT_EQ(_DFHEAP_Check(heap), 0u);
}

TEST_F(Heap, Refusals) {
    const uint64_t block = take(4096);
    uint64_t size = 5, word = 99;
    uintptr_t null = 0;
    EXPECT_EQ(DFHEAP_Alloc(nullptr, &size, 0, &word), 0u);
    for (const int32_t refused :
         {DFHEAP_Free(nullptr, kBase, &word), DFHEAP_Free(heap, 0, &word), DFHEAP_AddRef(nullptr, kBase, &word),
          DFHEAP_FixAlloc(heap, nullptr), DFHEAP_FixAlloc(nullptr, &null), DFHEAP_State(nullptr, nullptr, nullptr),
          DFHEAP_Lock(nullptr, 1), DFHEAP_SwapRef(nullptr, 1, 1, 1, 1),
          DFHEAP_Resize(nullptr, 0, kBase, kLength, 1, 0)}) {
        EXPECT_EQ(refused, -1);
    }
    for (const uint64_t none : {uint64_t{DFHEAP_FindAlloc(heap, nullptr)}, uint64_t{DFHEAP_FindAlloc(nullptr, &null)},
                                DFHEAP_LargestAvail(nullptr), DFHEAP_TotalFree(nullptr), DFHEAP_TotalUsed(nullptr)}) {
        EXPECT_EQ(none, 0u);
    }
    EXPECT_EQ(word, 99u);
    EXPECT_EQ(DFHEAP_State(heap, nullptr, nullptr), 0);
    DFHEAP_Destroy(nullptr);
    _DFHEAP_DumpList(nullptr);
    EXPECT_EQ(take(0), 0u);
    _DFHEAP_FindAlloc(heap, block)->lRefCount = 0;
    EXPECT_EQ(DFHEAP_Free(heap, block, &word), -1);
    EXPECT_EQ(word, 0u);
    EXPECT_EQ(DFHEAP_AddRef(heap, block, nullptr), -1);
    const std::string corrupt = ": refcount corrupt (0) for alloc at 0x" + hex16(block);
    EXPECT_EQ(log.take(), (Texts{"DFHEAP_Free called with NULL memory pointer", "DFHEAP_Alloc called with zero size",
                                 "_DFHEAP_ActualFree" + corrupt, "DFHEAP_AddRef" + corrupt}));
    _DFHEAP_FindAlloc(heap, block)->lRefCount = 1;
    drop(block);
}

TEST_F(Heap, ResizeNeedsAnEmptyHeap) {
    const auto resize = [&](uint64_t base, uint64_t length, uint32_t granule) {
        return DFHEAP_Resize(heap, 0, base, length, granule, 1);
    };
    const uint64_t block = take(4096);
    EXPECT_EQ(resize(kBase, kLength, 4096), -1);
    EXPECT_EQ(heap->qwSmallest, 8192u);
    drop(block);
    EXPECT_EQ(resize(2 * kBase, kLength, 4096), 0);
    EXPECT_EQ(take(2), 2 * kBase); // above the new threshold
    drop(2 * kBase);
    if (heap->ppChunkMap != nullptr) { // a refused map costs speed only, and is tried again
        const auto refused = [](const std::string &chunks) {
            return Texts{"Brenvole:  Unable to allocate chunk map (" + chunks +
                         " chunks), falling back to list search"};
        };
        failNth(1);
        EXPECT_EQ(resize(kBase, 8192, 4096), 0);
        EXPECT_EQ(log.take(), refused("2"));
        EXPECT_EQ(heap->ppChunkMap, nullptr);
        EXPECT_EQ(resize(kBase, 8192, 4096), 0);
        EXPECT_NE(heap->ppChunkMap, nullptr);
        const uint64_t before = requests(); // more than 32 bits of map: not even asked for
        EXPECT_EQ(resize(1, uint64_t{1} << 29, 1), 0);
        EXPECT_EQ(log.take(), refused("536870912"));
        EXPECT_EQ(requests(), before);
        EXPECT_EQ(resize(kBase, kLength, 4096), 0);
        drop(take(8192));
        replaceAlloc = [](uint32_t) -> void * { throw 1; }; // on its way, after the region has changed
        EXPECT_ANY_THROW(resize(kBase, 8192, 4096));
        replaceAlloc = nullptr;
        EXPECT_EQ(take(8192), kBase);
        EXPECT_EQ(take(4096), 0u);
        drop(kBase);
    }
    EXPECT_EQ(_DFHEAP_Check(heap), 0u);
}

// A request that waits for the lock is rounded by the granule that holds when it gets it.
TEST_F(Heap, ResizeWhileAnAllocationWaits) {
    for (const uint32_t granule : {65536u, 48u, 4096u}) {
        uint64_t size = 5000, block = 0;
        DFHEAP_Lock(heap, 1);
        wanted = nullptr;
        std::thread waiter([&] { block = DFHEAP_Alloc(heap, &size, 0, nullptr); });
        while (wanted != &heap->Lock) {}
        EXPECT_EQ(DFHEAP_Resize(heap, 0, kBase, kLength, granule, 0), 0);
        DFHEAP_Lock(heap, 0);
        waiter.join();
        EXPECT_TRUE(block != 0 && size == (5000 + granule - 1) / granule * granule) << size;
        EXPECT_EQ(_DFHEAP_Check(heap), 0u) << granule;
        drop(block);
    }
}

// An index that somebody has damaged is noticed, and made anew.
TEST_F(Heap, DamagedIndex) {
    if (heap->ppChunkMap == nullptr) { return; }
    for (const uint64_t segments : {uint64_t{5}, uint64_t{100}}) {
        std::vector<uint64_t> blocks;
        for (uint64_t i = 0; i < 2 * segments; ++i) { blocks.push_back(take(4096)); }
        for (uint64_t i = 0; i < 2 * segments; i += 2) { drop(std::exchange(blocks[i], 0)); }
        ASSERT_TRUE(freeIndexReady(heap));
        FreeIndex &index = heap->Index;
        ASSERT_EQ(index.eState, segments < 64 ? IndexState::few : IndexState::many);
        const uint64_t start = (blocks[1] - kBase) / 4096 + 1; // of a segment above
        index.eState == IndexState::few ? void(index.alStart[index.dwCount - 1] = 0)
                                        : void(index.aplLevel[0][start] = 0);
        for (const uint64_t block : blocks) {
            if (block != 0) { drop(block); }
        }
        checkEmpty();
    }
}

TEST_F(Heap, AllocationFaults) {
    for (const int holes : {0, 80}) {
        const std::vector<uint64_t> stay = remake(holes);
        for (const int way : {0, 1, 2, 3}) { // refused or thrown, with the index ready or to be made anew
            if (way >= 2) { freeIndexReset(heap); }
            if (way % 2 == 0) { failNth(1, true); }
            replaceAlloc = [](uint32_t) -> void * { throw 1; };
            EXPECT_EQ(take(4096), 0u);
            EXPECT_EQ(log.take(), way % 2 == 0 ? Texts{"No memory to allocate new PHALLOC (112)"} : Texts{});
            failNth(0);
            replaceAlloc = nullptr;
        }
        freeIndexReset(heap);
        const uint64_t low = take(12288), high = take(12288);
        replaceFree = [](void *block) {
            replaceFree = nullptr;
            QXFree(block); // what a merge gives back goes, and then it throws
            throw 1;
        };
        drop(high);
        drop(low);
        for (const uint64_t block : stay) { drop(block); }
        checkEmpty();
    }
}

// Each list operation that moves a record faults in turn, in front of its work or behind it, or doesn't do it: no
// record is lost, no lock stays held, and what is free joins again.
TEST_F(Heap, EachListOperationFails) {
    for (int run = 0; run < 18; ++run) { // a call alone, or two running; without a tree, on the way to it, with it
        constexpr ListFault faults[] = {ListFault::refuse, ListFault::throwBefore, ListFault::throwBehind};
        const ListFault how = faults[run % 3];
        const int strikes = 1 + run / 3 % 2;
        bool struck = true;
        for (int nth = 1; struck; ++nth) {
            const std::vector<uint64_t> stay = remake(run < 6 ? 0 : run < 12 ? 63 : 80);
            listStrikes = strikes;
            const uint64_t a = take(12288), b = take(12288), c = take(4096), d = take(4096), e = take(4096);
            listFault = how;
            listCallsLeft = nth;
            const auto sound = [&](uint64_t block) {
                EXPECT_TRUE(freeIndexSound(heap)) << nth;
                return block;
            };
            const uint64_t split = sound(take(12288)), rest = sound(take(DFHEAP_LargestAvail(heap)));
            for (const uint64_t block : {b, c, e, rest, a, split, d}) {
                if (block != 0) { DFHEAP_Free(heap, block, nullptr), sound(0); }
            }
            struck = listStrikes != strikes;
            listCallsLeft = 0;
            for (uintptr_t block : stay) { EXPECT_EQ(DFHEAP_FindAlloc(heap, &(block += 12287)), 12287u); }
            while (d_ListHead(&heap->AllocList) != nullptr) { // those, and what a fault has kept
                DFHEAP_Free(heap, physRecord(d_ListHead(&heap->AllocList))->lpAddr, nullptr);
            }
            const unsigned broken = _DFHEAP_Check(heap); // after two, a record may stand out of order
            ASSERT_TRUE(broken == 0 || broken == 8 || (strikes == 2 && broken == 4)) << broken << " at call " << nth;
            ASSERT_EQ(DFHEAP_TotalFree(heap), heap->qwLength);
            onThreads(1, [&](int) { drop(take(4096)); });
        }
    }
}

TEST_F(Heap, ThreadsOnOneHeap) {
    int owner = 0; // guarded by the heap's lock alone
    std::atomic<int> ready = 0;
    onThreads(4, [&](int t) {
        for (++ready; ready < 4;) {} // all at once
        for (int i = 0; i < (kSanitized ? 5000 : 50000); ++i) {
            DFHEAP_Lock(heap, 1);
            owner = t;
            drop(take(4096));
            ASSERT_EQ(owner, t); // still ours after the inner leaves
            DFHEAP_Lock(heap, 0);
            DFHEAP_LargestAvail(heap);
            DFHEAP_State(heap, nullptr, nullptr);
        }
    });
    checkEmpty();
}

TEST_F(Heap, DumpTellsBothLists) {
    const auto dump = [&](int64_t laterMs) {
        clockMs += static_cast<uint64_t>(laterMs);
        _DFHEAP_DumpList(heap);
        return log.take();
    };
    PDFRAME frame = nullptr;
    ASSERT_EQ(DFrameMem(DFRAME_ALLOC | DFRAME_FLAG_SYSHEAP, 10, 1, &frame), 0u);
    frame->lpLink[2] = reinterpret_cast<void *>(0x12345678ABCD);
    std::vector<uint64_t> blocks = {take(4096, reinterpret_cast<uint64_t>(frame)), take(122880, 0x1237),
                                    take(118784)};
    EXPECT_EQ(dump(100000), (Texts{"\nAllocList:(260>s1{r1})Owner(0x5678abcd)(5>s30{r1})Owner(0x00000000)(35>s29{r1})"
                                   "Owner(0x00000000) VideoChunks = 1, AudioChunks = 2",
                                   "\nFreeList: (64>s196{r0})Owner(0x00000000) VideoChunks = 1, AudioChunks = 0"}));
    DFrameMem(DFRAME_FREE, 0, 0, &frame); // gone: its word is not read
    EXPECT_EQ(dump(999), Texts{});
    EXPECT_EQ(dump(-50000)[0].find("5678abcd"), std::string::npos); // backwards
    while (blocks.size() < 43) { blocks.push_back(take(4096)); }
    const Texts lines = dump(1000);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0].size(), 11 + 7 * 29u + 28);
    EXPECT_EQ(lines[3].size(), 1 + 8 * 29u);
    for (const uint64_t block : blocks) { drop(block); }
    DllMain(nullptr, 0, nullptr);
    log.take();
}

} // namespace
