// The main pool: its size, its figures, and what fails on the way to it.
#include "frame_fixture.h"

#include "frames/frames.h"

#include <algorithm>
#include <atomic>
#include <cstring>

using namespace brenvole;

namespace {

const std::string kNoHeap = "WARNING(dfmem): Unable to create main heap\n";

uint64_t reset(uint64_t size) { return run(DFRAME_RESET, static_cast<int64_t>(size)); }

struct Pool : FrameTest {
    std::optional<FakeSystem> fake{std::in_place};
    FakeSystem &system = *fake;

    ~Pool() override {
        run(DFRAME_CLOSE);
        log.take();
        phys_allocs = 0; // a heap's end doesn't count its leaks
    }
};

TEST_F(Pool, Sizing) {
    for (std::istringstream &row : rowsOf("pool_sizes.txt")) {
        SCOPED_TRACE(row.str());
        int64_t wanted = 0;
        uint64_t size = 0, tries = 0;
        std::string available, requested, allocating, had;
        row >> system.available >> system.largest >> wanted >> size >> tries;
        row >> available >> requested >> allocating >> had;
        system.tries = 0;
        EXPECT_EQ(run(DFRAME_RESET, wanted), size != 0 ? 0 : kWidenedOutOfMemory);
        EXPECT_EQ(run(DFRAME_TOTAL), size);
        EXPECT_EQ(system.tries, tries);
        EXPECT_EQ(log.take(),
                  (Texts{"Resizing AV Mem (MB) (Total=15258.79 , Available=" + available +
                             " , Requested=" + requested + " , Allocating=" + allocating + " ) ",
                         size != 0 ? "AV Mem (actual alloc = " + had + " Gb) " : "Brenvole re-allocation failed"}));
        close();
    }
}

// ---- what fails on the way ----------------------------------------------------------------------------------------

// What each command of frames meets: a pool, none, a heap that has lost its pool, a pool made under want of memory.
enum class Start { pool, none, heapAlone, failing };

// Each allocation fails in turn, alone and with all behind it.
TEST_F(Pool, EachAllocationFails) {
    fake.reset();
    const std::pair<uint32_t, bool> commands[] = {
        {DFRAME_COPY, false},    {DFRAME_COPY, true},   {DFRAME_DUP_FREE, false},
        {DFRAME_SWAP, false},    {DFRAME_SWAP, true},   {DFRAME_RESIZE, true},
        {DFRAME_DUP_FREE, true}, {DFRAME_ALLOC, false}, {DFRAME_ALLOC, true}};
    for (unsigned way = 0; way < 16 * std::size(commands); ++way) {
        const auto [command, exists] = commands[way / 16];
        const Start start{static_cast<int>(way / 4 % 4)};
        const bool allBehind = way % 2 != 0;
        const bool custom = way / 2 % 2 != 0 && (command == DFRAME_COPY || command == DFRAME_DUP_FREE) && !exists;
        const bool byFrame = start == Start::none || start == Start::heapAlone;
        SCOPED_TRACE(way);
        bool failedOnce = true;
        for (uint32_t nth = 1; failedOnce; ++nth) {
            if (start != Start::none) { makePool(1000000); }
            if (start == Start::heapAlone) { run(DFRAME_CLOSE | DFRAME_FLAG_SYSHEAP); }
            const uint32_t side = start == Start::pool ? 0 : DFRAME_FLAG_SYSHEAP;
            PDFRAME source = nullptr, target = nullptr;
            ASSERT_EQ(alloc(source, 20000, side), 0u);
            std::memset(source->lpData, 7, source->dwBytesUsed = 20000);
            source->dwFlags |= custom ? DFRAME_FLAG_CUSTOM : 0;
            if (exists) { ASSERT_EQ(alloc(target, command == DFRAME_RESIZE ? 5000 : kNoData, side), 0u); }
            if (command == DFRAME_RESIZE) { std::memset(target->lpData, 7, target->dwBytesUsed = 5000); }
            log.take();
            ::DFHEAP *const old = start == Start::heapAlone ? mainHeap.load() : nullptr;
            failNth(nth, allBehind);
            if (start == Start::failing) { EXPECT_EQ(reset(1000001), 0u); } // ends the old heap
            const uint64_t result =
                command == DFRAME_ALLOC ? alloc(target, 30000) : run(command, target, 30000, &source);
            failedOnce = anyFailed();
            failNth(0);
            const Texts texts = log.take();
            EXPECT_TRUE(start == Start::failing || texts.empty() != failedOnce);
            const bool noHeap = byFrame && mainPool.load() != nullptr && mainHeap.load() == nullptr;
            EXPECT_EQ(std::count(texts.begin(), texts.end(), kNoHeap), noHeap ? 1 : 0);
            EXPECT_TRUE(result == 0 || static_cast<uint32_t>(result) == DFMEM_E_OUTOFMEMORY);
            EXPECT_TRUE(result == 0 || allBehind || command != DFRAME_SWAP || exists); // the other heap serves
            EXPECT_EQ(target == nullptr, result != 0 && command != DFRAME_RESIZE);
            if (target != nullptr && target->dwBytesUsed != 0) { // nothing is lost on the way
                EXPECT_TRUE(target->lpData[0] == 7 && target->lpData[target->dwBytesUsed - 1] == 7);
            }
            if (mainHeap.load() == nullptr) { // a pool without a heap is made anew, though it is large enough
                EXPECT_EQ(reset(1000000), 0u);
                EXPECT_EQ(run(DFRAME_TOTAL), 1000000u);
                log.take();
            }
            source->dwFlags = 0;
            EXPECT_TRUE(free(source) == 0 && (target == nullptr || free(target) == 0));
            if (old != mainHeap.load()) { DFHEAP_Destroy(old); }
            log.take();
            close();
            ASSERT_EQ(blocksOut(), outBefore);
        }
    }
}

// All need the pool at once.
TEST_F(Pool, Threads) {
    constexpr int kThreads = 4;
    fake.reset();
    for (int round = 0; round < 60; ++round) {
        makePool(3000000);
        const auto oldBase = reinterpret_cast<uint64_t>(mainPool.load());
        ::DFHEAP *const old = mainHeap; // a new pool only forgets it
        run(DFRAME_CLOSE | DFRAME_FLAG_SYSHEAP);
        std::atomic<int> ready = 0;
        std::atomic<uint64_t> bad = 0;
        onThreads(kThreads, [&](int) {
            PDFRAME own = nullptr;
            for (++ready; ready < kThreads;) {}
            bad |= alloc(own, 1000);
            // A block of the old pool; under a sanitizer the new one may lie there.
            bad |= !kSanitized && reinterpret_cast<uint64_t>(+own->lpData) - oldBase < 3000000;
            bad |= free(own);
        });
        ASSERT_EQ(bad, 0u);
        DFHEAP_Destroy(old);
        log.take();
        close();
        ASSERT_EQ(blocksOut(), outBefore); // one pool was made, and no more
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
    PDFRAME frame = nullptr, local = nullptr;
    ASSERT_EQ(alloc(frame, -1), 0u); // 4294967295 bytes become 2^32, of which the frame can tell the low half
    EXPECT_EQ(frame->dwBufferLength, 0u);
    EXPECT_EQ(figure(DFRAME_TOTALUSED), 0xFFFFFFFFu);
    EXPECT_EQ(word, 0x100000000u);
    EXPECT_EQ(free(frame), 0u);
    ASSERT_EQ(alloc(local, 1000, DFRAME_FLAG_SYSHEAP), 0u);
    EXPECT_EQ(run(DFRAME_SWAP, frame, 0xFFFFF000, &local), 0u); // more than a local block can have
    EXPECT_EQ(run(DFRAME_ISBRENVOLE, frame), 1u);
    EXPECT_EQ(free(frame) | free(local), 0u);
    const uint32_t taken = localBytes;
    // The local side: as much taken as the pool is large, and less.
    mainPoolSize = 0x40000001;
    for (const auto &[bytes, used] : {std::pair{0x40000001u, 0u}, {1000u, 1000u}}) {
        localBytes = bytes;
        EXPECT_EQ(run(DFRAME_TOTAL | DFRAME_FLAG_SYSHEAP), 0x40000001u - bytes);
        EXPECT_EQ(run(DFRAME_TOTALUSED | DFRAME_FLAG_SYSHEAP), used);
    }
    localBytes = taken;
    log.take();
}

TEST_F(Pool, DumpAndEndTellWhatThereIs) {
    const Texts dump = {"\nAllocList:(0>s4{r1})Owner(0x0000abcd) VideoChunks = 0, AudioChunks = 1",
                        "\nFreeList: (4>s240{r0})Owner(0x00000000) VideoChunks = 1, AudioChunks = 0"};
    EXPECT_EQ(run(DFRAME_DUMP), 0u);
    for (const bool byClose : {false, true}) {
        PDFRAME frame = nullptr, local = nullptr, refused = nullptr;
        ASSERT_EQ(reset(1000000) | alloc(frame, 10000) | alloc(local, 10000, DFRAME_FLAG_SYSHEAP), 0u);
        frame->lpLink[2] = reinterpret_cast<void *>(0xABCD);
        log.take();
        clockMs += 5000;
        EXPECT_EQ(run(DFRAME_DUMP), 0u);
        EXPECT_EQ(log.take(), dump);
        clockMs += 1000;
        failNth(1, true);
        EXPECT_EQ(alloc(refused, 1, DFRAME_FLAG_SYSHEAP), kWidenedOutOfMemory);
        failNth(0);
        const Texts texts = log.take();
        EXPECT_EQ((Texts{texts[3], texts[4]}), dump);
        // The cached block goes first when the pool is closed, and last when the library leaves.
        EXPECT_EQ(free(local), 0u);
        byClose ? run(DFRAME_CLOSE) : static_cast<uint64_t>(DllMain(nullptr, 0, nullptr));
        const Texts end = log.take();
        EXPECT_EQ(end[end.size() - 2], "\nMemory found not free'ed size 16384");
        EXPECT_EQ(end.back(), "Net DFrames Allocated in brenvole " + std::to_string(dframes) +
                                  " (bytes = " + std::to_string(dframe_bytes) + ") phys heap allocations " +
                                  std::to_string(phys_allocs) + " local heap allocations " + (byClose ? "0" : "1"));
        EXPECT_EQ(free(frame), 0xFFFFFFFEu);
        log.take();
    }
}

// ---- the system itself --------------------------------------------------------------------------------------------

TEST(Region, CommittedWholeAndGivenBackWhole) {
    for (const uint64_t size : {1u, 5u * 1024 * 1024 + 1}) {
        auto *const base = static_cast<char *>(qxOSVirtualAlloc(size));
        ASSERT_NE(base, nullptr);
        EXPECT_TRUE(base[0] == 0 && base[size - 1] == 0);
        base[0] = base[size - 1] = 1;
        qxOSVirtualFree(base + 4096); // no base: left alone
        EXPECT_EQ(mappingsAt(base) + mappingsAt(base + size - 1), 2);
        qxOSVirtualFree(base);
        EXPECT_EQ(mappingsAt(base) + mappingsAt(base + size - 1), 0);
        qxOSVirtualFree(base);
    }
    for (const uint64_t refused : {uint64_t{0}, UINT64_MAX, uint64_t{1} << 50}) {
        EXPECT_EQ(qxOSVirtualAlloc(refused), nullptr);
    }
    qxOSVirtualFree(nullptr);
}

TEST_F(Pool, TheWholeRegionGoesBack) {
    fake.reset();
    uint8_t *last = nullptr;
    for (const bool byClose : {true, false}) {
        ASSERT_EQ(reset(kSanitized ? 64000000 : UINT64_MAX), 0u); // else all that there is
        auto *const base = static_cast<uint8_t *>(mainPool.load());
        const uint64_t size = mainPoolSize;
        EXPECT_TRUE(kSanitized || !systemKeepsPlaces || base != std::exchange(last, base));
        if (!kSanitized) { base[0] = base[size - 1] = 1; } // no frame's: a memory tool would object
        EXPECT_EQ(mappingsAt(base) + mappingsAt(base + size - 1), 2);
        for (const uint32_t reason : {1u, 99u}) { EXPECT_EQ(DllMain(nullptr, reason, nullptr), 1); }
        EXPECT_EQ(mainPool.load(), static_cast<void *>(base));
        byClose ? run(DFRAME_CLOSE) : static_cast<uint64_t>(DllMain(nullptr, 0, nullptr));
        EXPECT_EQ(mappingsAt(base) + mappingsAt(base + size - 1), 0);
        log.take();
    }
}

} // namespace
