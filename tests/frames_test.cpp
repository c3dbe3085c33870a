// Frames through the command entry. Nothing here needs more than the exported names, so that it runs over the
// shared library too.
#include "frame_fixture.h"

#include <cstring>

namespace {

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
    EXPECT_EQ(free(frame), 0u);
}

TEST_F(Frames, Sizes) {
    const std::pair<int64_t, uint32_t> lengths[] = {
        {1, 1}, {45, 62}, {kNoData, 0}, {0xC0000000, 0x0CCCCCCC}, {INT64_MIN, 0}, {6588122883467697006, 0}};
    for (const auto &[wanted, length] : lengths) {
        ASSERT_EQ(alloc(frame, wanted, 0, 9000), 0u) << wanted;
        EXPECT_EQ(frame->dwBufferLength, length) << wanted;
        EXPECT_TRUE(length != 0 ? frame->lpData != nullptr : lastRequest() == 9004);
        EXPECT_EQ(frame->dwSize, 9000u);
        EXPECT_EQ(free(frame), 0u);
    }
    // -1 becomes 4294967295 bytes, more than a local block can have; the header is made twice and goes twice. The
    // pool, made for it, rounds the request to 2^32 bytes, of which the local heap then sees the low half.
    EXPECT_EQ(alloc(frame, -1), kWidenedOutOfMemory);
    EXPECT_EQ(log.take(),
              (Texts{"LocalHeap:  DFrame failed request size = -1.", kLocalFailed,
                     "LHEAP_Alloc called with zero size", "LocalHeap:  DFrame failed request size = 0."}));
    EXPECT_EQ(frame, nullptr);
    close();
    // A record whose block doesn't fit 32 bits is refused like a failed QXAlloc.
    const uint64_t before = requests();
    EXPECT_EQ(alloc(frame, 1000, 0, 0xFFFFFFFC), kWidenedOutOfMemory);
    EXPECT_EQ(requests(), before);
    const std::string noHeader = "ERROR(dfmem): Unable to allocate dframe structure\n";
    EXPECT_EQ(log.take(), (Texts{noHeader, kHelpFailed, kLocalFailed, noHeader, kHelpFailed}));
}

TEST_F(Frames, AFaultInAnAllocation) { // is caught, and dropped without the header's message
    replaceAlloc = [](uint32_t) -> void * { throw 1; };
    EXPECT_EQ(alloc(frame, 1000), kWidenedOutOfMemory);
    EXPECT_EQ(log.take(), (Texts{kHelpFailed, kLocalFailed, kHelpFailed}));
}

} // namespace
