// The main pool: its size, its four states and the ways between them, its figures.
#include "frame_fixture.h"

#include "frames/frames.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include <sys/resource.h>

using namespace brenvole;

namespace {

constexpr uint64_t kDefaultPool = 524255000;
const std::string kNoRegion = "WARNING(dfmem): Unable to allocate main memory pool\n";
const std::string kNoHeap = "WARNING(dfmem): Unable to create main heap\n";

uint64_t reset(uint64_t size) { return run(DFRAME_RESET, static_cast<int64_t>(size)); }
uint64_t dataOf(const DFRAME *frame) { return reinterpret_cast<uint64_t>(+frame->lpData); }
uint64_t poolBase() { return reinterpret_cast<uint64_t>(mainPool.load()); }

struct Pool : FrameTest {
    std::optional<FakeSystem> fake{std::in_place};
    FakeSystem &system = *fake;

    ~Pool() override {
        run(DFRAME_CLOSE);
        EXPECT_TRUE(!fake || system.regions.empty());
        log.take();
        phys_allocs = 0; // a heap's end doesn't count its leaks
    }
    // The state of a heap without a pool: its number, since a new pool only forgets it.
    ::DFHEAP *leaveHeapAlone() {
        EXPECT_EQ(reset(3000000), 0u);
        run(DFRAME_CLOSE | DFRAME_FLAG_SYSHEAP);
        log.take();
        system.tries = 0;
        return mainHeap;
    }
};

TEST_F(Pool, Sizing) {
    constexpr uint64_t kAll = UINT64_MAX;
    constexpr uint64_t k8G = 8000000000;
    const struct {
        const char *what;
        uint64_t available, largest; // largest: region that the system grants
        int64_t wanted;
        uint64_t size, tries; // of the pool, 0: refused; and how often the system was asked
        const char *texts[4]; // Available, Requested, Allocating in MiB; what was had in GiB
    } cases[] = {
        {"as asked", k8G, kAll, 2000000000, 2000000000, 1, {"7629.39", "1907.35", "1907.35", "1.863"}},
        {"80 percent", 1000000000, kAll, 2000000000, 800000000, 1, {"953.67", "1907.35", "762.94", "0.745"}},
        {"all of it", k8G, kAll, -1, 6400000000, 1, {"7629.39", "-0.00", "6103.52", "5.960"}},
        {"wraps to 0", k8G, kAll, INT64_MIN, k8G, 1, {"7629.39", "-8796093022208.00", "7629.39", "7.451"}},
        {"unknown", 0, kAll, 100 << 20, 0x4100000, 1, {"0.00", "100.00", "65.00", "0.063"}},
        {"unknown, less wanted", 0, kAll, 50 << 20, 50 << 20, 1, {"0.00", "50.00", "50.00", "0.049"}},
        {"one byte", 1, kAll, 100 << 20, 0x4100000, 1, {"0.00", "100.00", "65.00", "0.063"}},
        {"50 MiB", 0, kAll, INT64_MIN + 5242880, 0x3000000, 1, {"0.00", "-8796093022203.00", "48.00", "0.047"}},
        {"40 MiB", 0, kAll, INT64_MIN + 4194304, 0x2000000, 1, {"0.00", "-8796093022204.00", "32.00", "0.031"}},
        {"10 MiB", 0, kAll, INT64_MIN + 1048576, 10485760, 1, {"0.00", "-8796093022207.00", "10.00", "0.010"}},
        {"cut", 200000000000, kAll, 100000000000, 0xFFFFFF000, 1, {"190734.86", "95367.43", "95367.43", "64.000"}},
        {"steps", k8G, 1500000000, 2000000000, 1499993088, 15260, {"7629.39", "1907.35", "1907.35", "1.397"}},
        {"last step", k8G, 16777216, 16777217, 16744449, 2, {"7629.39", "16.00", "16.00", "0.016"}},
        {"tenths", k8G, 10000000, 20000000, 8377988, 105, {"7629.39", "19.07", "19.07", "0.008"}},
        {"last tenth", k8G, 9999, 16777216, 6, 11, {"7629.39", "16.00", "16.00", "0.000"}},
        {"ten tenths", k8G, 0, 10000000, 0, 10, {"7629.39", "9.54", "9.54", nullptr}},
        {"nothing", k8G, 0, 20000000, 0, 110, {"7629.39", "19.07", "19.07", nullptr}},
        {"no tenth", k8G, 0, 9, 0, 1, {"7629.39", "0.00", "0.00", nullptr}},
        {"none wanted", k8G, kAll, 0, 0, 1, {"7629.39", "0.00", "0.00", nullptr}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        system.available = c.available;
        system.largest = c.largest;
        system.tries = 0;
        EXPECT_EQ(run(DFRAME_RESET, c.wanted), c.size != 0 ? 0 : kWidenedOutOfMemory);
        EXPECT_EQ(run(DFRAME_TOTAL), c.size);
        EXPECT_EQ(system.tries, c.tries);
        const auto &[available, requested, allocating, had] = c.texts;
        EXPECT_EQ(log.take(), (Texts{std::string("Resizing AV Mem (MB) (Total=15258.79 , Available=") + available +
                                         " , Requested=" + requested + " , Allocating=" + allocating + " ) ",
                                     had != nullptr ? "AV Mem (actual alloc = " + std::string(had) + " Gb) "
                                                    : "Brenvole re-allocation failed"}));
        EXPECT_EQ(system.regions.size(), c.size != 0 ? 1u : 0u);
        close();
    }
}

// ---- states -------------------------------------------------------------------------------------------------------

struct States : Pool {
    struct Held {
        PDFRAME frame;
        uint64_t heap; // number of the heap that its data came from; 0: the local one
    };
    std::mt19937 random{5};
    std::vector<Held> frames;
    bool pool = false;
    uint64_t heap = 0; // number of mainHeap; 0: none
    uint64_t heaps = 0;
    uint64_t size = kDefaultPool;

    uint64_t usable() const { return size / 4096 * 4096; }
    uint64_t used() const {
        uint64_t sum = 0;
        for (const Held &held : frames) { sum += heap != 0 && held.heap == heap ? held.frame->dwBufferLength : 0; }
        return sum;
    }
    void checkReset() {
        static constexpr uint64_t kWishes[] = {1, 50000, 3000000, 3000001, 0, UINT64_MAX};
        const uint64_t wish = kWishes[random() % std::size(kWishes)];
        const bool enough = pool && wish != 0 && static_cast<int64_t>(wish) <= static_cast<int64_t>(size);
        const bool inUse = heap != 0 && !enough && used() != 0;
        if (!inUse && !(enough && heap != 0)) {
            size = system.largest != 0 ? std::min(wish, system.available / 10 * 8) : 0;
            pool = size != 0;
            heap = usable() != 0 ? ++heaps : 0; // a region below a granule is too small for a heap
        }
        ASSERT_EQ(reset(wish), inUse ? DFMEM_E_POINTER : pool ? 0 : kWidenedOutOfMemory);
        const Texts texts = log.take();
        ASSERT_EQ(inUse, texts == Texts{"Brenvole in use, no re-alloc(0xE8108005)"});
    }
    void checkClose(uint32_t side) {
        run(DFRAME_CLOSE | side);
        ASSERT_EQ(log.take()[0], side == 0 ? "STATUS(dfmem): dfmem:  Closing system heap\n"
                                           : "STATUS(dfmem): dfmem:  Closing NON-system heap\n");
        heap = side == 0 ? 0 : heap;
        pool = false;
        size = kDefaultPool;
    }
    void checkAlloc() {
        const uint32_t side = random() % 4 == 0 ? DFRAME_FLAG_SYSHEAP : 0;
        const bool asksPool = side == 0 && heap != 0; // else the local heap serves, which never fails here
        ::DFHEAP *const old = mainHeap;
        uint64_t room = pool ? run(DFRAME_LARGEST) : 0;
        PDFRAME frame = nullptr;
        ASSERT_EQ(alloc(frame, 1 + static_cast<int64_t>(random() % 400000), side), 0u);
        if (asksPool && !pool) { // a new pool, and a new heap; the old one is nobody's
            pool = system.largest != 0;
            ASSERT_EQ(log.take(), pool ? Texts{} : Texts{kNoRegion});
            size = pool ? size : mainPoolSize.load();
            if (pool) {
                DFHEAP_Destroy(old);
                heap = ++heaps;
                room = usable();
            }
        }
        const bool fits = asksPool && pool && frame->dwBufferLength <= room;
        ASSERT_EQ(pool && dataOf(frame) >= poolBase() && dataOf(frame) < poolBase() + size, fits);
        ASSERT_TRUE(!asksPool || !pool || frame->dwBufferLength % 4096 == 0); // rounded even if it doesn't fit
        frames.push_back({frame, fits ? heap : 0});
    }
    void checkFree() {
        if (frames.empty()) { return; }
        Held &held = frames[random() % frames.size()];
        const bool gone = held.heap != 0 && held.heap != heap;
        ASSERT_EQ(free(held.frame), gone ? 0xFFFFFFFEu : 0u);
        ASSERT_EQ(log.take().size(), gone ? 2u : 0u);
        held = frames.back();
        frames.pop_back();
    }
    void checkFigures() {
        const uint64_t taken = localBytes;
        for (const uint32_t side : {0u, DFRAME_FLAG_SYSHEAP}) {
            const bool local = side != 0 || heap == 0;
            uint64_t word = 7;
            const auto expect = [&](uint32_t command, uint64_t localFigure, uint64_t figure, bool writes) {
                word = 7;
                ASSERT_EQ(DFrameMem(command | side, 0, 0, reinterpret_cast<PDFRAME *>(&word)),
                          local ? localFigure : figure);
                ASSERT_EQ(word, local || !writes ? 7 : figure);
                ASSERT_EQ(run(command | side), local ? localFigure : figure);
            };
            const uint64_t localFree = taken < size ? size - taken : 0;
            expect(DFRAME_TOTAL, localFree, size, false);
            expect(DFRAME_TOTALUSED, taken < size ? taken : 0, used(), true);
            if (pool || local) { expect(DFRAME_TOTALAVAIL, localFree, usable() - used(), true); }
            expect(DFRAME_LARGEST, localFree, DFHEAP_LargestAvail(mainHeap), true);
            ASSERT_TRUE(run(DFRAME_GRANULARITY | side) == 4096 && run(DFRAME_SMALLEST | side) == 8192);
        }
        ASSERT_EQ(system.regions.size(), pool ? 1u : 0u);
        ASSERT_TRUE((mainHeap.load() != nullptr) == (heap != 0) && (poolBase() != 0) == pool && mainPoolSize == size);
    }
};

// The commands that change the state, in any order, with frames alive across all of them.
TEST_F(States, AnyOrder) {
    system.available = 40000000;
    uint32_t seen[2][2] = {};
    for (int step = 0; step < 20000 && !HasFatalFailure(); ++step) {
        SCOPED_TRACE(step);
        switch (random() % 16) {
        case 0: checkReset(); break;
        case 1: checkClose(0); break;
        case 2: checkClose(DFRAME_FLAG_SYSHEAP); break;
        case 3:
            DllMain(nullptr, 0, nullptr); // leaves the size as it is
            heap = 0;
            pool = false;
            break;
        case 4: system.largest = random() % 4 != 0 ? UINT64_MAX : 0; break;
        case 5: ASSERT_EQ(run(DFRAME_RESET | DFRAME_FLAG_SYSHEAP, static_cast<int64_t>(random())), 0u); break;
        default: random() % 2 != 0 && frames.size() < 12 ? checkAlloc() : checkFree();
        }
        log.take();
        checkFigures();
        ++seen[pool ? 1 : 0][heap != 0 ? 1 : 0];
    }
    while (!frames.empty() && !HasFatalFailure()) { checkFree(); }
    EXPECT_TRUE(seen[0][0] > 100 && seen[0][1] > 100 && seen[1][0] > 100 && seen[1][1] > 100);
}

// ---- what fails on the way ----------------------------------------------------------------------------------------

TEST_F(Pool, NoRegionForAFrame) {
    system.largest = 0;
    for (const uint64_t tries : {15488u, 1u}) { // 524255000 down to 16776984, which the next frame tries once more
        PDFRAME frame = nullptr;
        system.tries = 0;
        EXPECT_EQ(alloc(frame, -1), kWidenedOutOfMemory); // too large for a local block
        EXPECT_EQ(log.messages[2].first, QX_WARNING);
        EXPECT_EQ(log.take()[2], kNoRegion);
        EXPECT_EQ(system.tries, tries);
        EXPECT_EQ(run(DFRAME_TOTAL), 16776984u);
    }
}

// Each allocation fails in turn, alone and with all behind it, while a pool is made by DFRAME_RESET or by a frame,
// and used.
TEST_F(Pool, EachAllocationFails) {
    for (unsigned way = 0; way < 4; ++way) {
        const bool byFrame = way / 2 != 0;
        bool failedOnce = true;
        for (uint32_t nth = 1; failedOnce; ++nth) {
            ::DFHEAP *const old = leaveHeapAlone();
            failNth(nth, way % 2 != 0);
            if (!byFrame) { EXPECT_EQ(reset(3000001), 0u); } // ends the old heap
            PDFRAME frames[2] = {};
            for (PDFRAME &frame : frames) {
                const uint64_t result = alloc(frame, 10000);
                EXPECT_TRUE(frame == nullptr ? result == kWidenedOutOfMemory : result == 0);
            }
            failedOnce = anyFailed();
            failNth(0);
            const Texts texts = log.take();
            const bool told = std::count(texts.begin(), texts.end(), kNoHeap) != 0;
            EXPECT_EQ(told, byFrame && mainHeap.load() == nullptr);
            if (mainHeap.load() == nullptr) { // a pool without a heap is made anew, though it is large enough
                EXPECT_EQ(reset(1000000), 0u);
                EXPECT_EQ(run(DFRAME_TOTAL), 1000000u);
            }
            for (PDFRAME frame : frames) { EXPECT_TRUE(frame == nullptr || free(frame) == 0); }
            if (byFrame && old != mainHeap.load()) { DFHEAP_Destroy(old); }
            log.take();
            close();
            ASSERT_EQ(blocksOut(), outBefore);
        }
    }
}

TEST_F(Pool, ThreadsThatNeedItFirst) {
    for (int round = 0; round < 20; ++round) {
        ::DFHEAP *const old = leaveHeapAlone();
        const uint64_t oldEnd = system.nextBase;
        std::atomic<int> ready = 0;
        std::atomic<uint64_t> bad = 0;
        onThreads(4, [&](int) {
            PDFRAME frame = nullptr;
            for (++ready; ready < 4;) {}
            bad += alloc(frame, 10000);
            bad += dataOf(frame) >= uint64_t{1} << 50 && dataOf(frame) < oldEnd; // a block of the old pool
            bad += free(frame);
        });
        EXPECT_EQ(bad, 0u);
        EXPECT_EQ(system.tries, 1u);
        DFHEAP_Destroy(old);
        log.take();
    }
}

// ---- large figures, messages --------------------------------------------------------------------------------------

TEST_F(Pool, MoreThan32Bits) {
    ASSERT_EQ(reset(0x140000001), 0u);
    uint64_t word = 0;
    const auto figure = [&](uint32_t command) {
        return DFrameMem(command, 0, 0, reinterpret_cast<PDFRAME *>(&word));
    };
    for (const uint32_t command : {DFRAME_LARGEST, DFRAME_TOTALAVAIL}) {
        EXPECT_EQ(figure(command), 0xFFFFFFFFu);
        EXPECT_EQ(word, 0x140000000u);
    }
    EXPECT_EQ(run(DFRAME_TOTAL), 0x140000001u);
    PDFRAME frame = nullptr;
    ASSERT_EQ(alloc(frame, -1), 0u); // 4294967295 bytes become 2^32, of which the frame can tell the low half
    EXPECT_EQ(frame->dwBufferLength, 0u);
    EXPECT_EQ(figure(DFRAME_TOTALUSED), 0xFFFFFFFFu);
    EXPECT_EQ(word, 0x100000000u);
    EXPECT_EQ(addRef(frame), 0u);
    frame->lpData += uint64_t{1} << 32; // in the region and in no block: the header's count is raised all the same
    EXPECT_EQ(addRef(frame), 0xFFFFFFFFu);
    EXPECT_EQ(countOf(frame), 3u);
    frame->lpData -= 1; // anywhere inside will do
    PDFRAME second = nullptr;
    ASSERT_EQ(alloc(second, 10000), 0u);
    for (int i = 0; i < 3; ++i) {
        PDFRAME held = frame;
        EXPECT_EQ(free(held), 0u);
    }
    // Two segments. A sum that passes 64 bits is held there.
    uint64_t &largest = physRecord(d_ListHead(&mainHeap.load()->FreeList))->qwSize;
    const uint64_t before = std::exchange(largest, UINT64_MAX);
    EXPECT_EQ(figure(DFRAME_TOTALAVAIL), 0xFFFFFFFFu);
    EXPECT_EQ(word, UINT64_MAX);
    largest = before;
    EXPECT_EQ(free(second), 0u);
    // The local side: as much taken as the pool is large, and less.
    localBytes = 0x40000001;
    mainPoolSize = 0x40000001;
    EXPECT_EQ(run(DFRAME_TOTAL | DFRAME_FLAG_SYSHEAP) + run(DFRAME_TOTALUSED | DFRAME_FLAG_SYSHEAP), 0u);
    localBytes = 1000;
    EXPECT_EQ(run(DFRAME_TOTAL | DFRAME_FLAG_SYSHEAP), 0x40000001u - 1000);
    EXPECT_EQ(run(DFRAME_TOTALUSED | DFRAME_FLAG_SYSHEAP), 1000u);
    localBytes = 0;
    log.take();
}

TEST_F(Pool, DumpAndEndTellWhatThereIs) {
    EXPECT_EQ(run(DFRAME_DUMP), 0u);
    ASSERT_EQ(reset(1000000), 0u);
    PDFRAME frame = nullptr;
    PDFRAME local = nullptr;
    ASSERT_EQ(alloc(frame, 10000) | alloc(local, 10000, DFRAME_FLAG_SYSHEAP), 0u);
    frame->lpLink[2] = reinterpret_cast<void *>(0xABCD);
    EXPECT_EQ(reset(2000000), DFMEM_E_POINTER);
    log.take();
    const Texts dump = {"\nAllocList:(0>s4{r1})Owner(0x0000abcd) VideoChunks = 0, AudioChunks = 1",
                        "\nFreeList: (4>s240{r0})Owner(0x00000000) VideoChunks = 1, AudioChunks = 0"};
    clockMs += 5000;
    EXPECT_EQ(run(DFRAME_DUMP | DFRAME_FLAG_SYSHEAP), 0u);
    EXPECT_EQ(log.take(), Texts{});
    EXPECT_EQ(run(DFRAME_DUMP), 0u);
    EXPECT_EQ(log.take(), dump);
    clockMs += 1000;
    failNth(1, true);
    PDFRAME refused = nullptr;
    EXPECT_EQ(alloc(refused, 1, DFRAME_FLAG_SYSHEAP), kWidenedOutOfMemory);
    failNth(0);
    const Texts texts = log.take();
    EXPECT_EQ(texts[2], "Local Alloc Failed, Brenvole Failed");
    EXPECT_EQ((Texts{texts[3], texts[4]}), dump);
    // The cached block goes first when the pool is closed, and last when the library leaves.
    for (const bool byClose : {false, true}) {
        EXPECT_EQ(free(local), 0u);
        byClose ? run(DFRAME_CLOSE) : static_cast<uint64_t>(DllMain(nullptr, 0, nullptr));
        const Texts end = log.take();
        EXPECT_EQ(end[end.size() - 2], "\nMemory found not free'ed size 16384");
        EXPECT_EQ(end.back(), "Net DFrames Allocated in brenvole " + std::to_string(dframes) +
                                  " (bytes = " + std::to_string(dframe_bytes) + ") phys heap allocations " +
                                  std::to_string(phys_allocs) + " local heap allocations " + (byClose ? "0" : "1"));
        EXPECT_EQ(free(frame), 0xFFFFFFFEu);
        EXPECT_EQ(log.take().size(), 2u);
        if (!byClose) {
            ASSERT_EQ(reset(1000000) | alloc(frame, 10000) | alloc(local, 10000, DFRAME_FLAG_SYSHEAP), 0u);
        }
    }
}

// ---- the system itself --------------------------------------------------------------------------------------------

TEST_F(Pool, TheWholeRegionGoesBack) {
    fake.reset();
    const uint64_t wish = kSanitized ? 64000000 : UINT64_MAX; // else all that there is
    uint8_t *last = nullptr;
    for (const bool byClose : {true, false}) {
        ASSERT_EQ(reset(wish), 0u);
        auto *const base = static_cast<uint8_t *>(mainPool.load());
        const uint64_t size = mainPoolSize;
        EXPECT_TRUE(kSanitized || base != std::exchange(last, base)); // never where another one was
        PDFRAME big = nullptr;
        PDFRAME small = nullptr;
        ASSERT_EQ(alloc(big, 3110400) | alloc(small, 4096), 0u);
        EXPECT_EQ(+big->lpData, base); // large ones from the bottom, small ones from the top
        EXPECT_EQ(+small->lpData, base + size / 4096 * 4096 - 8192);
        std::memset(big->lpData, 1, big->dwBufferLength);
        std::memset(small->lpData, 2, small->dwBufferLength);
        EXPECT_EQ(big->lpData[big->dwBufferLength - 1], 1);
        EXPECT_EQ(mappingsAt(base) + mappingsAt(base + size - 1), 2);
        EXPECT_EQ(free(big) | free(small), 0u);
        byClose ? run(DFRAME_CLOSE) : static_cast<uint64_t>(DllMain(nullptr, 0, nullptr));
        EXPECT_EQ(mappingsAt(base) + mappingsAt(base + size - 1), 0);
        log.take();
    }
}

// The process ends while its threads write into their pictures.
TEST_F(Pool, ThreadsMayBeAtWorkAtTheEnd) {
    if (kSanitized) { GTEST_SKIP() << "the sanitizers wait for the threads"; }
    fake.reset();
    EXPECT_EXIT(
        {
            reset(64000000);
            std::atomic<int> ready = 0;
            for (int i = 0; i < 2; ++i) {
                std::thread([&ready] {
                    PDFRAME frame = nullptr;
                    alloc(frame, 10000000);
                    for (++ready;;) { std::memset(frame->lpData, 1, frame->dwBufferLength); }
                }).detach();
            }
            while (ready < 2) {}
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

// A process that may have less than it asks for: the steps lead to a size that it may have.
TEST_F(Pool, ARefusedPoolStepsDown) {
    if (kSanitized) { GTEST_SKIP() << "the sanitizers need more address space than a limit leaves"; }
    fake.reset();
    EXPECT_EXIT(
        {
            rlimit limit = {};
            limit.rlim_cur = limit.rlim_max = uint64_t{1} << 30;
            setrlimit(RLIMIT_AS, &limit);
            mainPoolSize = uint64_t{20} << 30;
            mainPoolNeed();
            _exit(poolBase() != 0 && mainPoolSize > uint64_t{3} << 28 && mainPoolSize < uint64_t{1} << 30 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
