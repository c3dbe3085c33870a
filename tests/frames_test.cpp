// Frames through the command entry. Nothing here needs more than the exported names, so that it runs over the
// shared library too.
#include "frame_fixture.h"

#include <atomic>
#include <cstring>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const std::string kHeaderFailed = "ERROR(dfmem): Unable to allocate dframe structure\n";
const std::string kHelpFailed = "heapHelpAllocDFrame(pDF==NULL)(0xE8108020)";
const std::string kLocalFailed = "Local Alloc Failed, Brenvole Failed";

struct Frames : FrameTest {
    PDFRAME frame = nullptr;
};

TEST_F(Frames, NewHeader) {
    ASSERT_EQ(DFrameMemTrace(0x0000010Au, 3000, 1, &frame, "area", 7), 0u); // bits 8 to 30 don't count
    DFRAME expected = {};
    expected.dwSize = DFRAME_SIZE;
    expected.dwFlags = 0x10000000;
    expected.dwAttachMark = 1;
    expected.dwAttachValue = 65520;
    expected.dwCreateMark = 0xFFFFFFFF;
    expected.lpData = frame->lpData;
    expected.dwBufferLength = 4200;
    EXPECT_EQ(std::memcmp(frame, &expected, sizeof expected), 0);
    EXPECT_EQ(countOf(frame), 1u);
    EXPECT_EQ(free(frame), 0u);
}

// What the caller asks, what the buffer is told to hold, and what QXAlloc is asked for.
TEST_F(Frames, Sizes) {
    const struct {
        int64_t wanted;
        uint32_t length;
        uint32_t block; // 0: no data, the header is the last request
    } cases[] = {{1000, 1400, 24704}, {1, 1, 24704},
                 {45, 62, 24704},     {2000, 2800, 24704},
                 {3000, 4200, 24704}, {100000, 140000, 147456 + 16512},
                 {0xB6DB6DB7, 0, 0},  {0xC0000000, 0x0CCCCCCC, 0x0CCCE000 + 16512},
                 {INT64_MIN, 0, 0},   {6588122883467697006, 0, 0}};
    for (const auto &c : cases) {
        for (const uint32_t top : {0u, DFRAME_FLAG_SYSHEAP}) {
            ASSERT_EQ(DFrameMem(DFRAME_ALLOC | top, c.wanted, 9000, &frame), 0u) << c.wanted;
            EXPECT_EQ(frame->dwBufferLength, c.length) << c.wanted;
            EXPECT_EQ(lastRequest(), c.block != 0 ? c.block : 9004u) << c.wanted;
            EXPECT_EQ(+frame->lpData != nullptr, c.block != 0);
            EXPECT_EQ(frame->dwSize, 9000u);
            EXPECT_EQ(free(frame), 0u);
            close();
        }
    }
    // -1 becomes 4294967295 bytes, more than a local block can have; the header is made twice and goes twice. The
    // pool, made for it, rounds the request to 2^32 bytes, of which the local heap then sees the low half.
    const Texts twice = {"LocalHeap:  DFrame failed request size = -1.", kLocalFailed,
                         "LHEAP_Alloc called with zero size", "LocalHeap:  DFrame failed request size = 0."};
    EXPECT_EQ(alloc(frame, -1), kWidenedOutOfMemory);
    EXPECT_EQ(log.take(), twice);
    EXPECT_EQ(frame, nullptr);
    close();
    // A record whose block doesn't fit 32 bits is refused like a failed QXAlloc; of a larger one the low bits count.
    const uint64_t before = requests();
    EXPECT_EQ(alloc(frame, 1000, 0, 0xFFFFFFFC), kWidenedOutOfMemory);
    EXPECT_EQ(requests(), before);
    EXPECT_EQ(log.take(), (Texts{kHeaderFailed, kHelpFailed, kLocalFailed, kHeaderFailed, kHelpFailed}));
    ASSERT_EQ(alloc(frame, 1000, 0, 0x100000005), 0u);
    EXPECT_EQ(frame->dwSize, 5u); // as asked; the record itself has its full size
    EXPECT_EQ(requests(), before + 2);
    frame->dwSize = DFRAME_SIZE;
    EXPECT_EQ(free(frame), 0u);
}

TEST_F(Frames, NewDataForAnExistingFrame) {
    ASSERT_EQ(alloc(frame, 2000, 0, 9000), 0u);
    ASSERT_EQ(alloc(frame, 5000, 0, 1), 0u);
    EXPECT_EQ(frame->dwSize, 1u);
    EXPECT_EQ(blocksOut(), outBefore + 3); // header, data, and the old data as the cached block
    // A buffer that is the caller's, or that no heap knows, is forgotten without a word; flags stay.
    uint8_t *data = frame->lpData;
    uint8_t own[8] = {};
    for (const uint32_t flag : {DFRAME_FLAG_CUSTOM, 0u}) {
        frame->lpData = own;
        frame->dwFlags |= flag;
        ASSERT_EQ(alloc(frame, 100), 0u);
        EXPECT_EQ(frame->dwFlags, DFRAME_FLAG_CREATED | flag);
        frame->dwFlags = DFRAME_FLAG_CREATED;
        PDFRAME shadow = nullptr; // gives the buffer back that was in the frame before
        ASSERT_EQ(alloc(shadow, kNoData), 0u);
        shadow->lpData = std::exchange(data, +frame->lpData);
        EXPECT_EQ(free(shadow), 0u);
    }
    EXPECT_EQ(free(frame), 0u);
}

TEST_F(Frames, OverwritesAreReportedAndGoOn) {
    ASSERT_EQ(alloc(frame, 1000), 0u);
    frame->dwBytesUsed = 1401;
    EXPECT_EQ(addRef(frame), 0u);
    EXPECT_EQ(log.take(), Texts{"ERROR(dfmem): DFrameAddRef memory overwrite\n"});
    PDFRAME second = frame;
    EXPECT_EQ(free(second), 0u);
    EXPECT_EQ(second, nullptr);
    const Texts both = {"DFrameFree memory overwrite 1401 1400",
                        "heapHelpFreeDFrame: buffer overwrite detected (used=1401, length=1400)"};
    EXPECT_EQ(log.take(), both);
    EXPECT_EQ(free(frame), 0u);
    EXPECT_EQ(log.take(), both);
}

TEST_F(Frames, DataInNoHeap) {
    ASSERT_EQ(alloc(frame, 1000), 0u);
    uint8_t *const data = frame->lpData;
    frame->lpData = reinterpret_cast<uint8_t *>(0x7F123456789AB000);
    EXPECT_EQ(free(frame), 0xFFFFFFFEu);
    EXPECT_EQ(log.take(),
              (Texts{"WARNING(dfmem): Unable to free DFrame allocation! \n", "NO-Free(0x789AB000-1400) "}));
    EXPECT_EQ(frame, nullptr);
    EXPECT_EQ(blocksOut(), outBefore + 1); // the header went all the same
    ASSERT_EQ(alloc(frame, 0xB6DB6DB7), 0u);
    frame->lpData = reinterpret_cast<uint8_t *>(0x123456789);
    EXPECT_EQ(addRef(frame), DFMEM_E_FAILED);
    EXPECT_EQ(log.take(), Texts{"Unable to AddRef(0xE8108013)"});
    EXPECT_EQ(countOf(frame)--, 2u); // stays raised
    frame->lpData = data + 1000;     // a moved pointer is found
    EXPECT_EQ(free(frame), 0u);
}

TEST_F(Frames, WantOfMemoryIsTold) {
    failNth(1, true);
    EXPECT_EQ(alloc(frame, 1000), kWidenedOutOfMemory);
    EXPECT_EQ(log.take(), (Texts{kHeaderFailed, kHelpFailed, kLocalFailed, kHeaderFailed, kHelpFailed}));
    failNth(0);
    replaceAlloc = [](uint32_t) -> void * { throw 1; }; // caught, and dropped without the header's message
    EXPECT_EQ(alloc(frame, 1000), kWidenedOutOfMemory);
    EXPECT_EQ(log.take(), (Texts{kHelpFailed, kLocalFailed, kHelpFailed}));
}

// ---- threads ------------------------------------------------------------------------------------------------------

TEST_F(Frames, ThreadsShareAndFree) {
    constexpr int kThreads = 4;
    for (int round = 0; round < 60; ++round) {
        ASSERT_EQ(alloc(frame, round % 2 == 0 ? 1000 : 600000), 0u);
        std::memset(frame->lpData, round, frame->dwBufferLength);
        for (int i = 1; i < kThreads; ++i) { ASSERT_EQ(addRef(frame), 0u); }
        std::atomic<int> bad = 0;
        onThreads(kThreads, [&](int) {
            PDFRAME held = frame;
            for (int pass = 0; pass < 5; ++pass) { // one more reference, and the same again less
                PDFRAME extra = held;
                bad += addRef(held) != 0 || held->lpData[pass] != static_cast<uint8_t>(round) || free(extra) != 0;
                PDFRAME own = nullptr;
                bad += DFrameMem(DFRAME_ALLOC, 700 * pass + 1, 1, &own) != 0 || free(own) != 0;
            }
            bad += free(held) != 0; // of all these, exactly one releases
        });
        ASSERT_EQ(bad, 0);
        frame = nullptr;
        close();
        ASSERT_EQ(blocksOut(), outBefore);
    }
}

// Only read, write and exit are left to the process: a round trip that made any other call would end it.
TEST(FramesDeathTest, CachedRoundTripMakesNoSystemCall) {
    if (kSanitized) { GTEST_SKIP() << "the sanitizers' allocators make calls of their own"; }
    EXPECT_EXIT(
        {
            const auto roundTrips = [] {
                int failures = 0;
                for (uint32_t i = 0; i < 100; ++i) { // events, before the trace looks at its sources again
                    const uint32_t side = i % 2 * DFRAME_FLAG_SYSHEAP; // both heaps
                    PDFRAME small = nullptr;
                    PDFRAME big = nullptr;
                    failures += DFrameMem(DFRAME_ALLOC | side, 3110400, 1, &big) != 0;
                    failures += DFrameMem(DFRAME_ALLOC | side, 4096, 1, &small) != 0;
                    failures += DFrameMem(DFRAME_ADDREF, 0, 0, &big) != 0;
                    PDFRAME second = big;
                    failures += DFrameMem(DFRAME_FREE, 0, 0, &second) != 0;
                    failures += DFrameMem(DFRAME_FREE, 0, 0, &big) != 0;
                    failures += DFrameMem(DFRAME_FREE, 0, 0, &small) != 0;
                }
                return failures;
            };
            DFrameMem(DFRAME_RESET, 20000000, 0, nullptr);
            roundTrips(); // fills the cache, and the allocator's own
            if (prctl(PR_SET_SECCOMP, 1) != 0) { _exit(2); }
            syscall(SYS_exit, roundTrips() == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
