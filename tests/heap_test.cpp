#include "harness.h"
#include "heap_driver.h"
#include "local/counters.h"
#include "phys/heap.h"

#include <brenvole/dframe.h>

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <tuple>

#include <dlfcn.h>

using namespace brenvole;

// Strikes at a call of the list operations that move records.
enum class ListFault { refuse, throwBefore, throwBehind };
static ListFault listFault;
static int listCallsLeft = 0; // 0: never

template <class Result, class... Arguments> static Result listCall(const char *name, Arguments... arguments) {
    const bool strikes = listCallsLeft > 0 && --listCallsLeft == 0;
    if (strikes) { listCallsLeft = -1; }
    if (strikes && listFault == ListFault::throwBefore) { throw 1; }
    if (strikes && listFault == ListFault::refuse) { return {}; }
    const Result result = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name))(arguments...);
    if (strikes) { throw 1; }
    return result;
}

#define LIST_EXPORT extern "C" __attribute__((visibility("default")))
LIST_EXPORT uint32_t d_ListAddHead(d_List *l, d_ListNode *n) { return listCall<uint32_t>("d_ListAddHead", l, n); }
LIST_EXPORT uint32_t d_ListAddTail(d_List *l, d_ListNode *n) { return listCall<uint32_t>("d_ListAddTail", l, n); }
LIST_EXPORT d_ListNode *d_ListRemove(d_List *l, d_ListNode *n) {
    return listCall<d_ListNode *>("d_ListRemove", l, n);
}
LIST_EXPORT uint32_t d_ListInsert(d_List *l, d_ListNode *after, d_ListNode *n) {
    return listCall<uint32_t>("d_ListInsert", l, after, n);
}

namespace {

constexpr uint64_t kBase = 0x100000; // nothing is mapped there: a heap that touched its region would fault
constexpr uint64_t kLength = 0x100000;
constexpr uint64_t kOffset = 0x5000;

struct Heap : testing::Test {
    LogCapture log;
    int64_t outBefore = blocksOut();
    uint64_t countedBefore = phys_allocs;
    DFHEAP *heap = DFHEAP_Create(kOffset, kBase, kLength, 4096, 8192);
    Texts startTexts = log.take(); // of the list-search mode, if it is on

    ~Heap() override {
        failNth(0);
        end();
        EXPECT_EQ(blocksOut(), outBefore);
        EXPECT_EQ(phys_allocs, countedBefore);
    }
    // Ends the heap; gives what it said before its closing words.
    Texts end() {
        if (heap == nullptr) { return {}; }
        DFHEAP_Destroy(std::exchange(heap, nullptr));
        Texts texts = log.take();
        EXPECT_EQ(texts.back().rfind("Net DFrames Allocated in brenvole ", 0), 0u);
        texts.pop_back();
        return texts;
    }
    uint64_t take(uint64_t size, uint64_t owner = 0) { return DFHEAP_Alloc(heap, &size, owner, nullptr); }
    void dropAll(std::initializer_list<uint64_t> blocks) {
        for (const uint64_t block : blocks) { EXPECT_EQ(DFHEAP_Free(heap, block, nullptr), 0); }
    }
    PHALLOC *recordAt(uint64_t addr) { return _DFHEAP_FindAlloc(heap, addr); }
    std::pair<uint32_t, uint32_t> state() {
        std::pair<uint32_t, uint32_t> counts;
        DFHEAP_State(heap, &counts.first, &counts.second);
        return counts;
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

TEST_F(Heap, GeometryIsRoundedOrRefused) {
    const uint64_t last = UINT64_MAX - 0xFFF; // the last page; nothing may add to its end
    EXPECT_EQ(DFHEAP_Resize(heap, 1, last, 0x1000, 0x1000, 0), 0);
    EXPECT_EQ(std::tuple(heap->lpBase, heap->qwLength, heap->qwPhysOffset), std::tuple(last, 0x1000u, 0x1000u));
    EXPECT_EQ(DFHEAP_Contains(heap, UINT64_MAX) + DFHEAP_Contains(heap, last), 2);
    EXPECT_EQ(DFHEAP_Contains(heap, last - 1) + DFHEAP_Contains(heap, 0) + DFHEAP_Contains(nullptr, last), 0);
    for (const auto &[offset, base, length, granule] :
         std::vector<std::array<uint64_t, 4>>{{0, 0, 9, 1},
                                              {0, 9, 0, 1},
                                              {0, 9, 9, 0},
                                              {0, 4097, 4095, 4096},
                                              {0, 4097, 8190, 4096},
                                              {UINT64_MAX, 4096, 4096, 4096},
                                              {0, UINT64_MAX, 4096, 4096}}) {
        EXPECT_EQ(DFHEAP_Create(offset, base, length, static_cast<uint32_t>(granule), 0), nullptr) << base;
        EXPECT_EQ(DFHEAP_Resize(heap, offset, base, length, static_cast<uint32_t>(granule), 0), -1) << base;
    }
    EXPECT_EQ(_DFHEAP_Check(heap), 0u);
}

TEST_F(Heap, NullArguments) {
    uint64_t size = 5, untouched = 99;
    uintptr_t null = 0;
    EXPECT_EQ(DFHEAP_Alloc(nullptr, &size, 0, &untouched), 0u);
    EXPECT_EQ(DFHEAP_Free(nullptr, kBase, &untouched) + DFHEAP_AddRef(nullptr, kBase, &untouched), -2);
    EXPECT_EQ(DFHEAP_Free(heap, 0, &untouched) + DFHEAP_AddRef(heap, 0, &untouched), -2);
    EXPECT_EQ(untouched, 99u);
    EXPECT_EQ(DFHEAP_FindAlloc(heap, nullptr) + DFHEAP_FindAlloc(heap, &null) + DFHEAP_FindAlloc(nullptr, &null), 0u);
    EXPECT_EQ(DFHEAP_FixAlloc(heap, nullptr) + DFHEAP_FixAlloc(heap, &null) + DFHEAP_FixAlloc(nullptr, &null), -3);
    EXPECT_EQ(DFHEAP_State(nullptr, nullptr, nullptr) + DFHEAP_Lock(nullptr, 1) + DFHEAP_SwapRef(nullptr, 1, 1, 1, 1),
              -3);
    EXPECT_EQ(DFHEAP_Resize(nullptr, 0, kBase, kLength, 1, 0) + DFHEAP_State(heap, nullptr, nullptr), -1);
    EXPECT_EQ(DFHEAP_LargestAvail(nullptr) + DFHEAP_TotalFree(nullptr) + DFHEAP_TotalUsed(nullptr), 0u);
    DFHEAP_Destroy(nullptr);
    _DFHEAP_DumpList(nullptr);
    size = 0;
    EXPECT_EQ(DFHEAP_Alloc(heap, &size, 0, nullptr), 0u);
    EXPECT_EQ(log.take(),
              (Texts{"DFHEAP_Free called with NULL memory pointer", "DFHEAP_Alloc called with zero size"}));
}

TEST_F(Heap, LeaksAreReportedInTheirOrder) {
    take(4096);
    take(12288);
    const std::string counts = std::to_string(dframes) + " (bytes = " + std::to_string(dframe_bytes) +
                               ") phys heap allocations " + std::to_string(countedBefore + 2) +
                               " local heap allocations " + std::to_string(local_allocs);
    DFHEAP_Destroy(std::exchange(heap, nullptr));
    EXPECT_EQ(log.take(), (Texts{"\nMemory found not free'ed size 4096", "\nMemory found not free'ed size 12288",
                                 "Net DFrames Allocated in brenvole " + counts}));
    phys_allocs = countedBefore; // the leaks still count
}

TEST_F(Heap, ResizeNeedsAnEmptyHeap) {
    const uint64_t block = take(4096);
    EXPECT_EQ(DFHEAP_Resize(heap, 0, kBase, kLength, 4096, 1), -1);
    EXPECT_EQ(heap->qwSmallest, 8192u);
    dropAll({block});
    EXPECT_EQ(DFHEAP_Resize(heap, 0, kBase, 100, 4096, 1), -1);
    EXPECT_EQ(heap->qwSmallest, 8192u);
    PHALLOC **const map = heap->ppChunkMap;
    EXPECT_EQ(DFHEAP_Resize(heap, 0, 2 * kBase, kLength, 4096, 1), 0); // as many granules: the map stays
    EXPECT_EQ(heap->ppChunkMap, map);
    EXPECT_EQ(take(2), 2 * kBase); // above the new threshold
    dropAll({2 * kBase});
    if (map != nullptr) { // a refused map costs speed only, and is tried again
        failNth(1);
        EXPECT_EQ(DFHEAP_Resize(heap, 0, kBase, 8192, 4096, 1), 0);
        EXPECT_EQ(log.take(),
                  Texts{"Brenvole:  Unable to allocate chunk map (2 chunks), falling back to list search"});
        EXPECT_EQ(heap->ppChunkMap, nullptr);
        EXPECT_EQ(DFHEAP_Resize(heap, 0, kBase, 8192, 4096, 1), 0);
        EXPECT_NE(heap->ppChunkMap, nullptr);
        const uint64_t before = requests(); // more than 32 bits of map: not even asked for
        EXPECT_EQ(DFHEAP_Resize(heap, 0, 1, uint64_t{1} << 29, 1, 0), 0);
        EXPECT_EQ(log.take(),
                  Texts{"Brenvole:  Unable to allocate chunk map (536870912 chunks), falling back to list search"});
        EXPECT_EQ(requests(), before);
    }
    EXPECT_EQ(_DFHEAP_Check(heap), 0u);
}

TEST_F(Heap, CorruptCountsAreReported) {
    const uint64_t block = take(4096, 7);
    recordAt(block)->lRefCount = 0;
    uint64_t owner = 99;
    EXPECT_EQ(DFHEAP_Free(heap, block, &owner), -1);
    EXPECT_EQ(owner, 0u);
    EXPECT_EQ(DFHEAP_AddRef(heap, block, &owner), -1);
    EXPECT_EQ(log.take(), (Texts{"_DFHEAP_ActualFree: refcount corrupt (0) for alloc at 0x" + hex16(block),
                                 "DFHEAP_AddRef: refcount corrupt (0) for alloc at 0x" + hex16(block)}));
    recordAt(block)->lRefCount = 1;
    dropAll({block});
}

// Each QXAlloc fails, then each throws: nothing is lost, no lock stays held.
TEST_F(Heap, EachAllocationFails) {
    for (uint32_t nth = 1; nth <= 3; ++nth) {
        failNth(nth);
        DFHEAP *const other = DFHEAP_Create(0, kBase, kLength, 4096, 0);
        EXPECT_EQ(other != nullptr, nth == 3 || !startTexts.empty()) << nth; // the third is the map's
        failNth(0);
        DFHEAP_Destroy(other);
    }
    log.take();
    failNth(1);
    EXPECT_EQ(take(4096), 0u);
    EXPECT_EQ(log.take(), Texts{"No memory to allocate new PHALLOC (112)"});
    replaceAlloc = [](uint32_t) -> void * { throw 1; };
    EXPECT_EQ(take(4096), 0u);
    replaceAlloc = nullptr;
    EXPECT_EQ(state(), (std::pair{0u, 1u}));
    const uint64_t low = take(12288), high = take(12288);
    replaceFree = [](void *block) {
        replaceFree = nullptr;
        QXFree(block); // what a merge gives back goes, and then it throws
        throw 1;
    };
    EXPECT_EQ(DFHEAP_Free(heap, high, nullptr), 0);
    dropAll({low});
    EXPECT_EQ(_DFHEAP_Check(heap), 0u);
    EXPECT_EQ(DFHEAP_LargestAvail(heap), kLength);
    onThreads(1, [&](int) { dropAll({take(4096)}); }); // no lock is held
}

// Each list operation that moves a record faults in turn, in front of its work or behind it, or doesn't do it: no
// record is lost, no lock stays held, and what is free joins again.
TEST_F(Heap, EachListOperationFails) {
    for (const ListFault how : {ListFault::refuse, ListFault::throwBefore, ListFault::throwBehind}) {
        bool struck = true;
        for (int nth = 1; struck; ++nth) {
            const uint64_t a = take(12288), b = take(12288), c = take(4096), d = take(4096);
            listFault = how;
            listCallsLeft = nth;
            const uint64_t rest = take(DFHEAP_LargestAvail(heap));
            for (const uint64_t block : {b, d, rest, a, c}) {
                if (block != 0) { DFHEAP_Free(heap, block, nullptr); }
            }
            struck = listCallsLeft <= 0;
            listCallsLeft = 0;
            while (d_ListHead(&heap->AllocList) != nullptr) { // what a fault has kept
                DFHEAP_Free(heap, physRecord(d_ListHead(&heap->AllocList))->lpAddr, nullptr);
            }
            const unsigned broken = _DFHEAP_Check(heap);
            ASSERT_TRUE(broken == 0 || broken == 8) << broken << " at call " << nth; // unmerged is not lost
            ASSERT_EQ(DFHEAP_TotalFree(heap), kLength);
            onThreads(1, [&](int) { dropAll({take(4096)}); });
            end();
            heap = DFHEAP_Create(kOffset, kBase, kLength, 4096, 8192);
        }
    }
}

TEST_F(Heap, ThreadsOnOneHeap) {
    onThreads(4, [&](int t) {
        std::mt19937 random(static_cast<unsigned>(t));
        for (int i = 0; i < 1500; ++i) {
            const uint64_t block = take(1 + random() % 30000, 5);
            if (block == 0) { continue; }
            ASSERT_EQ(DFHEAP_AddRef(heap, block + 1, nullptr), 0);
            uintptr_t inside = block + 100;
            ASSERT_EQ(DFHEAP_FixAlloc(heap, &inside), 0);
            ASSERT_EQ(inside, block);
            DFHEAP_LargestAvail(heap);
            DFHEAP_State(heap, nullptr, nullptr);
            ASSERT_EQ(DFHEAP_Free(heap, block, nullptr), 1);
            uint64_t owner = 0;
            ASSERT_EQ(DFHEAP_Free(heap, block, &owner), 0);
            ASSERT_EQ(owner, 5u);
        }
    });
    EXPECT_EQ(_DFHEAP_Check(heap), 0u);
    EXPECT_EQ(state(), (std::pair{0u, 1u}));
}

TEST_F(Heap, DumpTellsBothLists) {
    clockMs += 100000;
    PDFRAME frame = nullptr;
    ASSERT_EQ(DFrameMem(DFRAME_ALLOC | DFRAME_FLAG_SYSHEAP, 10, 1, &frame), 0u);
    frame->lpLink[2] = reinterpret_cast<void *>(0x12345678ABCD);
    const uint64_t a = take(4096, reinterpret_cast<uint64_t>(frame)), b = take(122880, 0x1237), c = take(118784, 8);
    DFHEAP_AddRef(heap, b, nullptr);
    _DFHEAP_DumpList(heap);
    const Texts first = {"\nAllocList:(260>s1{r1})Owner(0x5678abcd)(5>s30{r2})Owner(0x00000000)(35>s29{r1})Owner("
                         "0x00000000) VideoChunks = 1, AudioChunks = 2",
                         "\nFreeList: (64>s196{r0})Owner(0x00000000) VideoChunks = 1, AudioChunks = 0"};
    EXPECT_EQ(log.take(), first);
    DFrameMem(DFRAME_FREE, 0, 0, &frame); // gone: its word is not read
    clockMs += 999;
    _DFHEAP_DumpList(heap);
    EXPECT_EQ(log.take(), Texts{});
    clockMs -= 50000; // backwards
    _DFHEAP_DumpList(heap);
    EXPECT_EQ(log.take()[0].find("5678abcd"), std::string::npos);
    DFHEAP_Free(heap, b, nullptr);
    dropAll({a, b, c});
    std::vector<uint64_t> many(40);
    for (uint64_t &block : many) { block = take(4096); }
    clockMs += 1000;
    _DFHEAP_DumpList(heap);
    const Texts lines = log.take();
    ASSERT_EQ(lines.size(), 6u); // an item has 29 characters: eight to a line, 232 of 254
    EXPECT_EQ(lines[0].size(), 11 + 8 * 29u);
    EXPECT_EQ(lines[3].size(), 1 + 8 * 29u);
    EXPECT_EQ(lines[4].substr(lines[4].find(" Video")), " VideoChunks = 0, AudioChunks = 40");
    for (const uint64_t block : many) { dropAll({block}); }
    DFHEAP_Destroy(std::exchange(heap, nullptr));
    DllMain(nullptr, 0, nullptr);
}

} // namespace
