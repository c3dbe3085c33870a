#include "harness.h"
#include "heap_driver.h"
#include "local/counters.h"
#include "phys/heap.h"

#include <brenvole/dframe.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include <sys/mman.h>

using namespace brenvole;

static uint64_t (*replaceClock)() = nullptr;

// The dump's pause is measured by this clock.
extern "C" __attribute__((visibility("default"))) uint64_t qxOSGetTimeMs() {
    return replaceClock != nullptr ? replaceClock() : 5000;
}

namespace {

constexpr uint64_t kBase = 0x100000;
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

TEST(HeapModel, Geometry) {
    const struct {
        uint64_t offset, base, length;
        uint32_t granule;
        uint64_t first, usable, physical; // 0: refused
    } cases[] = {{0, 0x1001, 0x3000, 0x1000, 0x2000, 0x2000, 0},
                 {1, 0x2000, 0x1000, 0x1000, 0x2000, 0x1000, 0x1000},
                 {0, 0, 0x3000, 0x1000, 0, 0, 0},
                 {0, 0x1000, 0, 0x1000, 0, 0, 0},
                 {0, 0x1000, 0x1000, 0, 0, 0, 0},
                 {0, 0x1001, 0xFFF, 0x1000, 0, 0, 0},
                 {0, 0x1001, 0x1FFE, 0x1000, 0, 0, 0},
                 {UINT64_MAX, 0x1000, 0x1000, 0x1000, 0, 0, 0},
                 {0, UINT64_MAX, 0x1000, 0x1000, 0, 0, 0},
                 {0, UINT64_MAX - 0xFFF, 0x1000, 0x1000, UINT64_MAX - 0xFFF, 0x1000, 0}};
    const LogCapture log;
    for (const auto &c : cases) {
        const int64_t before = blocksOut();
        DFHEAP *const heap = DFHEAP_Create(c.offset, c.base, c.length, c.granule, 0);
        ASSERT_EQ(heap != nullptr, c.usable != 0) << c.base;
        if (heap != nullptr) {
            EXPECT_EQ(heap->lpBase, c.first);
            EXPECT_EQ(heap->qwLength, c.usable);
            EXPECT_EQ(heap->qwPhysOffset, c.physical);
            EXPECT_EQ(DFHEAP_Contains(heap, c.first) + DFHEAP_Contains(heap, c.first + (c.usable - 1)), 2);
            EXPECT_EQ(DFHEAP_Contains(heap, c.first - 1) + DFHEAP_Contains(heap, c.first + c.usable), 0);
            DFHEAP_Destroy(heap);
        }
        EXPECT_EQ(blocksOut(), before);
    }
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
    char at[17];
    std::snprintf(at, sizeof at, "%016lX", static_cast<unsigned long>(block));
    recordAt(block)->lRefCount = 0;
    uint64_t owner = 99;
    EXPECT_EQ(DFHEAP_Free(heap, block, &owner), -1);
    EXPECT_EQ(owner, 0u);
    EXPECT_EQ(DFHEAP_AddRef(heap, block, &owner), -1);
    EXPECT_EQ(log.take(), (Texts{std::string("_DFHEAP_ActualFree: refcount corrupt (0) for alloc at 0x") + at,
                                 std::string("DFHEAP_AddRef: refcount corrupt (0) for alloc at 0x") + at}));
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
    EXPECT_EQ(_DFHEAP_Check(heap), 0u);
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

TEST_F(Heap, RegionIsNeverTouched) {
    void *const region = mmap(nullptr, kLength, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_EQ(DFHEAP_Resize(heap, 0, reinterpret_cast<uintptr_t>(region), kLength, 4096, 8192), 0);
    const uint64_t a = take(4096), b = take(50000), c = take(4096);
    dropAll({b, a, c});
    munmap(region, kLength);
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

// ---- dump
// -----------------------------------------------------------------------------------------------------------

TEST_F(Heap, DumpTellsBothLists) {
    static uint64_t now;
    now = 100000;
    replaceClock = [] { return now; };
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
    now += 999;
    _DFHEAP_DumpList(heap);
    EXPECT_EQ(log.take(), Texts{});
    now -= 50000; // backwards
    _DFHEAP_DumpList(heap);
    EXPECT_EQ(log.take()[0].find("5678abcd"), std::string::npos);
    DFHEAP_Free(heap, b, nullptr);
    dropAll({a, b, c});
    std::vector<uint64_t> many(40);
    for (uint64_t &block : many) { block = take(4096); }
    now += 1000;
    _DFHEAP_DumpList(heap);
    const Texts lines = log.take();
    ASSERT_EQ(lines.size(), 6u);
    for (std::size_t i = 0; i < 4; ++i) { // an item has 29 characters: eight to a line, 232 of 254
        EXPECT_EQ(lines[i].rfind(i == 0 ? "\nAllocList:(" : "\n(", 0), 0u) << lines[i];
        EXPECT_EQ(lines[i].size(), (i == 0 ? 11 : 1) + 8 * 29u);
    }
    EXPECT_EQ(lines[4].substr(lines[4].find(" Video")), " VideoChunks = 0, AudioChunks = 40");
    for (const uint64_t block : many) { dropAll({block}); }
    DFHEAP_Destroy(std::exchange(heap, nullptr));
    DllMain(nullptr, 0, nullptr);
    replaceClock = nullptr;
}

} // namespace
