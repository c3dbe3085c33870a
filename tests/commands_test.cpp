// The commands that copy, share, exchange, resize and place data: header tables, refusals, what fails on the way, and
// all of them at random beside a model. Nothing here needs more than the exported names.
#include "frame_fixture.h"
#include "local/phalloc.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>

#include <sys/mman.h>

namespace {

constexpr uint64_t kNowhere = UINT64_MAX;

using Commands = FrameTest;

// ---- header tables ------------------------------------------------------------------------------------------------

// How each command leaves each field: name, offset, size, and a letter a command. d its own, s the other frame's,
// 0 null, A the attach stamp, c the copy size, t own without the tail's flag, T the other's without it, C the other's
// but its own custom flag, n the other's without custom flag, - told by other tests.
// Commands: copy, destination; dup, sharing; dup of a custom source, new; swap, target; swap, source; swap, new
// target; swap, source of a new target; fix; resize.
constexpr const char *kFields = R"(
lpLink         0    24   0dddddddd
dwSize         24   4    ddcddcddd
dwFlags        28   4    CsnTTTt0d
dwAttachMark   32   4    AsssssdAd
abBodyHead     36   8236 ssssssddd
lpTail         8272 8    000000ddd
dwTailLength   8280 4    ssssssddd
abBodyRest     8284 128  ssssssddd
dwTrailA       8412 4    sssdddd0d
dwAttachValue  8416 4    AsssssdAd
dwTrailB       8420 4    sssdddd0d
dwCreateMark   8424 4    ssssssd0d
lpData         8428 8    ds-sss---
dwBufferLength 8436 4    ds-sss-d-
dwBytesUsed    8440 4    ssssss0dd
qwTrailC       8444 8    ssssssd0d
dwTrailD       8452 4    ssssssd0d
dwTrailE       8456 4    dssdddd0d
dwTrailF       8460 4    ssssdsd0d
dwTrailG       8464 4    ssssdsd0d
dwTrailH       8468 4    ssssdsd0d
dwTrailI       8472 4    ssssdsd0d
wTrailJ        8476 2    sssdddddd
abEnd          8478 2    ddddddddd)";

void checkHeader(std::size_t column, const DFRAME *after, const DFRAME &own, const DFRAME &other) {
    std::istringstream fields(kFields);
    std::string name, rules;
    for (std::size_t offset = 0, size = 0; fields >> name >> offset >> size >> rules;) {
        const auto at = [&](const DFRAME *frame) { return reinterpret_cast<const char *>(frame) + offset; };
        std::vector<char> expected(size);
        const auto set = [&](uint32_t value) { std::memcpy(expected.data(), &value, 4); };
        switch (rules[column]) {
        case 'd': std::copy_n(at(&own), size, expected.begin()); break;
        case 's': std::copy_n(at(&other), size, expected.begin()); break;
        case 'A': set(offset == 32 ? 1 : 65520); break;
        case 'c': set(DFRAME_SIZE + other.dwTailLength); break;
        case 't': set(own.dwFlags & ~DFRAME_FLAG_TAIL); break;
        case 'T': set(other.dwFlags & ~DFRAME_FLAG_TAIL); break;
        case 'C': set((other.dwFlags & ~DFRAME_FLAG_CUSTOM) | (own.dwFlags & DFRAME_FLAG_CUSTOM)); break;
        case 'n': set(other.dwFlags & ~DFRAME_FLAG_CUSTOM); break;
        case '-': continue;
        default: break;
        }
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), at(after))) << name << " " << column;
    }
}

// Fills all that belongs to the caller, with a valid tail.
void fillHeader(PDFRAME frame, std::mt19937 &random) {
    const DFRAME before = *frame;
    for (uint32_t i = 0; i < sizeof *frame; ++i) {
        reinterpret_cast<uint8_t *>(frame)[i] = static_cast<uint8_t>(random());
    }
    frame->dwSize = before.dwSize;
    frame->dwFlags = (frame->dwFlags & ~DFRAME_FLAG_CUSTOM) | DFRAME_FLAG_TAIL;
    frame->dwTailLength = 1 + static_cast<uint32_t>(random() % 1024);
    frame->lpData = before.lpData;
    frame->dwBufferLength = before.dwBufferLength;
    frame->dwBytesUsed = 1 + static_cast<uint32_t>(random() % 1000);
}

TEST_F(Commands, EachFieldOfTheHeader) {
    std::mt19937 random{3};
    makePool(1000000);
    DFRAME fresh = {};
    fresh.dwFlags = DFRAME_FLAG_CREATED;
    for (const uint32_t side : {0u, DFRAME_FLAG_SYSHEAP}) {
        for (std::size_t column = 0; column < 9; ++column) {
            PDFRAME source = nullptr;
            PDFRAME target = nullptr;
            ASSERT_EQ(alloc(source, 5000, side), 0u);
            fillHeader(source, random);
            const bool made = column == 2 || column == 5 || column == 6;
            if (!made) {
                ASSERT_EQ(alloc(target, 6000, side), 0u);
                fillHeader(target, random);
            }
            if (column == 0) { std::swap(source->dwBytesUsed, target->dwBytesUsed); }
            if (column == 2) { source->dwFlags |= DFRAME_FLAG_CUSTOM; }
            const DFRAME ofSource = *source;
            const DFRAME ofTarget = made ? fresh : *target;
            static constexpr uint32_t kCommands[] = {DFRAME_COPY, DFRAME_DUP_FREE, DFRAME_DUP_FREE,
                                                     DFRAME_SWAP, DFRAME_SWAP,     DFRAME_SWAP,
                                                     DFRAME_SWAP, DFRAME_FIXALLOC, DFRAME_RESIZE};
            ASSERT_EQ(run(kCommands[column], target, column == 8 ? 9000 : 0, &source), 0u);
            EXPECT_EQ(log.take(), column == 0 ? Texts{"ERROR(dfmem): dfmem:COPY-Double Listed\n"} : Texts{});
            const bool sourceSide = column == 4 || column == 6;
            checkHeader(column, sourceSide ? source : target, sourceSide ? ofSource : ofTarget,
                        sourceSide ? ofTarget : ofSource);
            if (column < 3) { EXPECT_EQ(std::memcmp(source, &ofSource, sizeof ofSource), 0); }
            source->dwFlags = target->dwFlags = 0;
            source->dwSize = target->dwSize = DFRAME_SIZE;
            EXPECT_EQ(free(source) | free(target), 0u);
        }
    }
}

// ---- refusals -----------------------------------------------------------------------------------------------------

TEST_F(Commands, Refusals) {
    uint8_t own[64] = {};
    PDFRAME null = nullptr, plain = nullptr, custom = nullptr, empty = nullptr, lost = nullptr;
    for (PDFRAME *frame : {&custom, &empty, &lost}) { ASSERT_EQ(alloc(*frame, kNoData), 0u); }
    ASSERT_EQ(alloc(plain, 1000), 0u);
    plain->dwBytesUsed = 100;
    custom->dwFlags |= DFRAME_FLAG_CUSTOM;
    custom->lpData = own;
    custom->dwBufferLength = 64;
    lost->lpData = reinterpret_cast<uint8_t *>(0x7F123456789AB000);
    lost->dwBufferLength = 50;
    PDFRAME bare = nullptr; // custom, bytes used, no data
    ASSERT_EQ(alloc(bare, kNoData), 0u);
    bare->dwFlags |= DFRAME_FLAG_CUSTOM;
    bare->dwBytesUsed = bare->dwBufferLength = 5;
    const struct {
        uint32_t command;
        int64_t param1;
        PDFRAME *source, *target;
        uint64_t result;
        Texts texts;
    } cases[] = {
        {DFRAME_ALLOC, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_ALLOC|ppDF==NULL(0xE8108005)"}},
        {DFRAME_ALLOC, 0, nullptr, &null, DFMEM_E_POINTER, {"DFRAME_ALLOC|pDF==NULL(0xE8108005)"}},
        {DFRAME_ALLOC, 0, &plain, &null, DFMEM_E_INVALIDARG, {}},
        {DFRAME_FREE, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_FREE|pDF==NULL(0xE8108005)"}},
        {DFRAME_FREE, 0, nullptr, &null, DFMEM_E_POINTER, {"DFRAME_FREE2|*pDF==NULL(0xE8108005)"}},
        {DFRAME_FREE, 0, nullptr, &custom, DFMEM_E_INVALIDARG, {"DFRAME_FREE|NotAnyHeap(0xE8108004)"}},
        {DFRAME_ADDREF, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_ADDREF|pDF==NULL(0xE8108005)"}},
        {DFRAME_ADDREF, 0, nullptr, &custom, DFMEM_E_INVALIDARG, {}},
        {DFRAME_ADDREF, 0, nullptr, &empty, DFMEM_E_OUTOFMEMORY, {"pDF->lpData==NULL(0xE8108020)"}},
        {4, 0, nullptr, &plain, DFMEM_E_FAILED, {"Unknown DFrameMem Command(0xE8108013)"}},
        {0x80000000u | 129, 0, nullptr, nullptr, DFMEM_E_FAILED, {"Unknown DFrameMem Command(0xE8108013)"}},
        {DFRAME_COPY, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_COPY|pDFSrcParam==NULL(0xE8108005)"}},
        {DFRAME_COPY, 0, &plain, nullptr, DFMEM_E_POINTER, {"DFRAME_COPY|pDFDstParam==NULL(0xE8108005)"}},
        {DFRAME_COPY, 0, &null, &plain, DFMEM_E_INVALIDARG, {"DFRAME_COPY|pDFSrc==NULL(0xE8108004)"}},
        {DFRAME_COPY, 0, &plain, &custom, DFMEM_E_INVALIDARG, {"DFRAME_COPY|CustomTooSmall(0xE8108004)"}},
        {DFRAME_DUP_FREE, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_DUP_FREE|pDF==NULL(0xE8108005)"}},
        {DFRAME_DUP_FREE, 0, nullptr, &plain, DFMEM_E_INVALIDARG, {"DFRAME_DUP_FREE|Src==NULL(0xE8108004)"}},
        {DFRAME_DUP_FREE, 0, &null, &plain, DFMEM_E_INVALIDARG, {"DFRAME_DUP_FREE|SrcDFrame==NULL(0xE8108004)"}},
        {DFRAME_DUP_FREE, 0, &plain, &plain, DFMEM_E_INVALIDARG, {"DFRAME_DUP_FREE|SameDFrame(0xE8108004)"}},
        {DFRAME_DUP_FREE, 0, &plain, &custom, DFMEM_E_INVALIDARG, {"DFRAME_DUP_FREE|DestNotAnyHeap(0xE8108004)"}},
        {DFRAME_DUP_FREE, 0, &custom, &plain, DFMEM_E_INVALIDARG, {"DFRAME_DUP_FREE|SrcNotAnyHeap(0xE8108004)"}},
        {DFRAME_DUP_FREE, 0, &bare, &null, DFMEM_E_INVALIDARG, {"DFRAME_DUP_FREE|SrcNoData(0xE8108004)"}},
        {DFRAME_SWAP, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_SWAP|pDF==NULL(0xE8108005)"}},
        {DFRAME_SWAP, 0, nullptr, &custom, DFMEM_E_INVALIDARG, {"DFRAME_SWAP|SrcParam==NULL(0xE8108004)"}},
        {DFRAME_SWAP, 0, &null, &custom, DFMEM_E_INVALIDARG, {"DFRAME_SWAP|NotAnyHeap(0xE8108004)"}},
        {DFRAME_SWAP, 0, &null, &plain, DFMEM_E_INVALIDARG, {"DFRAME_SWAP|pDFSrc==NULL(0xE8108004)"}},
        {DFRAME_SWAP, 0, &custom, &plain, DFMEM_E_INVALIDARG, {"DFRAME_SWAP|SrcNOTBrenvole(0xE8108004)"}},
        {DFRAME_RESIZE, 1, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_RESIZE|pDF==NULL(0xE8108005)"}},
        {DFRAME_RESIZE, 1, nullptr, &null, DFMEM_E_INVALIDARG, {"DFRAME_RESIZE|NotAnyHeap(0xE8108004)"}},
        {DFRAME_RESIZE, -1, nullptr, &plain, DFMEM_E_INVALIDARG, {"DFRAME_RESIZE|BadSize(0xE8108004)"}},
        {DFRAME_RESIZE, 0xFFFFFFFF, nullptr, &plain, DFMEM_E_OUTOFMEMORY, {"DFRAME_RESIZE|NoMemory(0xE8108020)"}},
        {DFRAME_RESIZE, 9, nullptr, &lost, kNowhere, {}},
        {DFRAME_ISLOCAL, 0, nullptr, &custom, 0, {}},
        {DFRAME_ISLOCAL, 0, nullptr, &plain, 1, {}},
        {DFRAME_ISBRENVOLE, 0, nullptr, nullptr, 0, {}},
        {DFRAME_ISBRENVOLE, 0, nullptr, &plain, 0, {}},
        {DFRAME_FINDALLOC, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_FINDALLOC|pDF==NULL(0xE8108005)"}},
        {DFRAME_FINDALLOC, 0, nullptr, &empty, 0, {}},
        {DFRAME_FINDALLOC, 0, nullptr, &lost, kNowhere, {}},
        {DFRAME_FIXALLOC, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_FIXALLOC|pDF==NULL(0xE8108005)"}},
        {DFRAME_FIXALLOC, 0, nullptr, &custom, DFMEM_E_INVALIDARG, {}},
        {DFRAME_FIXALLOC, 0, nullptr, &empty, 0, {}},
    };
    for (const auto &c : cases) {
        std::vector<DFRAME> before;
        const PDFRAME all[] = {plain, custom, empty, lost, bare};
        for (PDFRAME frame : all) { before.push_back(*frame); }
        EXPECT_EQ(DFrameMem(c.command, c.param1, reinterpret_cast<uintptr_t>(c.source), c.target), c.result);
        EXPECT_EQ(log.take(), c.texts) << c.command;
        for (std::size_t i = 0; i < before.size(); ++i) {
            EXPECT_EQ(std::memcmp(all[i], &before[i], sizeof(DFRAME)), 0);
        }
        EXPECT_EQ(null, nullptr);
    }
    EXPECT_EQ(run(DFRAME_FIXALLOC, lost), kNowhere); // has reset the header all the same
    EXPECT_EQ(lost->dwFlags, 0u);
    // The overwrite tests report and go on.
    plain->dwBytesUsed = plain->dwBufferLength + 1;
    const std::pair<uint32_t, const char *> reports[] = {{DFRAME_ISLOCAL, "DFrameIsLocal"},
                                                         {DFRAME_ISBRENVOLE, "DFrameIsBrenvole"},
                                                         {DFRAME_FINDALLOC, "DFrameFindAlloc"},
                                                         {DFRAME_FIXALLOC, "DFrameFixAlloc"},
                                                         {DFRAME_RESIZE, "DFrameResize"},
                                                         {DFRAME_DUP_FREE, "DFrameDupFree"},
                                                         {DFRAME_SWAP, "DFrameSwap"}};
    for (const auto &[command, name] : reports) {
        PDFRAME target = command == DFRAME_DUP_FREE || command == DFRAME_SWAP ? nullptr : plain;
        run(command, target, plain->dwBufferLength, &plain);
        EXPECT_EQ(log.take(), Texts{"ERROR(dfmem): " + std::string(name) + " memory overwrite\n"});
        if (target != plain) {
            if (command == DFRAME_SWAP) { std::swap(target, plain); }
            target->dwBytesUsed = 0;
            EXPECT_EQ(free(target), 0u);
        }
    }
    PDFRAME copy = nullptr; // its first buffer is too small for what is said to be used
    const uint64_t asked = requests();
    EXPECT_EQ(run(DFRAME_COPY, copy, 0, &plain), 0u);
    EXPECT_EQ(requests() - asked, 3u);
    EXPECT_EQ(log.take(), Texts{"Warning: DFrameCopy memory overwrite (src=1401, dst=1400) "});
    EXPECT_EQ(copy->dwBytesUsed, 1401u);
    copy->dwBytesUsed = plain->dwBytesUsed = 0;
    lost->lpData = bare->lpData = custom->lpData = nullptr;
    bare->dwFlags = custom->dwFlags = 0;
    bare->dwBytesUsed = 0;
    for (PDFRAME frame : {plain, custom, empty, lost, bare, copy}) { EXPECT_EQ(free(frame), 0u); }
}

// ---- bytes that must not be touched -------------------------------------------------------------------------------

// Sharing and exchange in one heap, with the data's pages out of reach.
TEST_F(Commands, NoByteMovesInOneHeap) {
    makePool(8000000);
    constexpr std::size_t kPages = 8 * 4096;
    for (const uint32_t side : {0u, DFRAME_FLAG_SYSHEAP}) {
        PDFRAME a = nullptr, b = nullptr, shared = nullptr, fresh = nullptr;
        ASSERT_EQ(alloc(a, 60000, side) | alloc(b, 50000, side), 0u);
        a->dwBytesUsed = 60000;
        b->dwBytesUsed = 50000;
        uint8_t *const data[] = {a->lpData, b->lpData};
        for (uint8_t *pages : data) { ASSERT_EQ(mprotect(pages, kPages, PROT_NONE), 0); }
        EXPECT_EQ(run(DFRAME_DUP_FREE, shared, 0, &a) | free(shared), 0u);
        EXPECT_EQ(run(DFRAME_SWAP, b, 0, &a), 0u);
        EXPECT_TRUE(a->lpData == data[1] && b->lpData == data[0] && a->dwBytesUsed == 50000);
        EXPECT_EQ(run(DFRAME_SWAP, b, 0, &b), 0u); // with itself: nothing but the tail is lost
        EXPECT_TRUE(b->lpData == data[0] && b->dwBytesUsed == 60000);
        EXPECT_EQ(run(DFRAME_SWAP, fresh, 90000, &a), 0u); // the source is left with the new frame's buffer
        EXPECT_TRUE(fresh->lpData == data[1] && a->dwBufferLength >= 90000 && a->dwBytesUsed == 0);
        for (uint8_t *pages : data) { ASSERT_EQ(mprotect(pages, kPages, PROT_READ | PROT_WRITE), 0); }
        EXPECT_EQ(free(a) | free(b) | free(fresh), 0u);
    }
}

TEST_F(Commands, OutOfReach) {
    makePool(1000000);
    PDFRAME source = nullptr, copy = nullptr, custom = nullptr, shared = nullptr;
    ASSERT_EQ(alloc(source, 700000) | alloc(custom, kNoData), 0u);
    uint8_t *const data = source->lpData;
    source->lpData += 300000;
    source->dwBufferLength -= 300000;
    std::memset(source->lpData, 9, source->dwBytesUsed = 1000);
    // A copy that the local heap must serve for a full pool keeps no pointer that it couldn't find.
    EXPECT_EQ(run(DFRAME_COPY, copy, 0, &source), 0u);
    EXPECT_EQ(run(DFRAME_ISLOCAL, copy), 1u);
    EXPECT_EQ(std::memcmp(copy->lpData, source->lpData, 1000), 0);
    EXPECT_EQ(free(copy), 0u);
    // A pointer into the pool, but into none of its blocks: nothing to share.
    source->lpData = data + 990000;
    EXPECT_EQ(run(DFRAME_DUP_FREE, shared, 0, &source), 0xFFFFFFFFu);
    EXPECT_EQ(shared, nullptr);
    source->lpData = data;
    // A source that says to use more than it has is read no further than it goes.
    const auto own = std::make_unique<uint8_t[]>(1000);
    custom->lpData = own.get();
    custom->dwBufferLength = 1000;
    custom->dwBytesUsed = 1001;
    for (const uint32_t flag : {DFRAME_FLAG_CUSTOM, 0u}) { // the caller's, or one that no heap knows
        custom->dwFlags = flag;
        EXPECT_EQ(run(DFRAME_DUP_FREE, shared, 0, &custom), 0u);
        EXPECT_EQ(log.take(), Texts{"ERROR(dfmem): DFrameDupFree memory overwrite\n"});
        EXPECT_EQ(std::memcmp(shared->lpData, own.get(), 1000), 0);
        shared->dwBytesUsed = 0;
        EXPECT_EQ(free(shared), 0u);
    }
    custom->dwFlags = DFRAME_FLAG_CUSTOM;
    custom->lpData = data;
    EXPECT_EQ(run(DFRAME_ISBRENVOLE, custom), 0u); // be it in the pool
    log.take();
    custom->dwFlags = custom->dwBytesUsed = 0;
    custom->lpData = nullptr;
    ASSERT_EQ(alloc(copy, 1000, DFRAME_FLAG_SYSHEAP), 0u);
    copy->dwBytesUsed = 0x40000000;
    EXPECT_EQ(run(DFRAME_RESIZE, copy, 0x20000000), 0u);
    copy->dwBytesUsed = 0x40000000;
    EXPECT_EQ(run(DFRAME_SWAP, source, 0, &copy), DFMEM_E_FAILED);
    source->dwBytesUsed = 0;
    EXPECT_EQ(run(DFRAME_SWAP, source, 0, &copy), 0u); // one way, as far as it goes
    source->dwBytesUsed = 0;
    log.take();
    EXPECT_EQ(free(custom) | free(copy) | free(source), 0u);
}

TEST_F(Commands, SizesOfWhatIsMade) {
    FakeSystem system; // a pool without memory behind it
    makePool(0x140000000);
    PDFRAME source = nullptr, made = nullptr;
    ASSERT_EQ(alloc(source, 20000, DFRAME_FLAG_SYSHEAP), 0u);
    EXPECT_EQ(run(DFRAME_SWAP, made, 0xFFFFF000, &source), 0u); // more than a local block can have
    EXPECT_EQ(run(DFRAME_ISBRENVOLE, made), 1u);
    log.take();
    EXPECT_EQ(free(made), 0u);
    for (const auto &[full, length] : {std::pair{1000u, 1016u}, {19199u, 19215u}, {19200u, 23296u}}) {
        source->dwBufferLength = source->dwBytesUsed = full;
        EXPECT_EQ(run(DFRAME_COPY, made, 0, &source), 0u);
        EXPECT_EQ(made->dwBufferLength, length);
        EXPECT_EQ(free(made), 0u);
    }
    EXPECT_EQ(free(source), 0u);
    run(DFRAME_CLOSE);
    log.take();
}

// Between the heaps, both have to use less than the other holds.
TEST_F(Commands, BytesThatJustFitAreRefused) {
    makePool(1000000);
    PDFRAME pool = nullptr, local = nullptr;
    ASSERT_EQ(alloc(pool, 5000) | alloc(local, 5000, DFRAME_FLAG_SYSHEAP), 0u); // 8192 and 7000
    for (PDFRAME *source : {&pool, &local}) {
        PDFRAME &target = source == &pool ? local : pool;
        pool->dwBytesUsed = local->dwBytesUsed = 7000;
        EXPECT_EQ(run(DFRAME_SWAP, target, 0, source), DFMEM_E_FAILED);
        EXPECT_EQ(log.take(), Texts{"NoSwap DFrame LHEAP(0xE8108013)"});
        pool->dwBytesUsed = 6999;
        std::memset(pool->lpData, 1, 6999);
        std::memset(local->lpData, 2, 7000);
        EXPECT_EQ(run(DFRAME_SWAP, target, 0, source), 0u);
        EXPECT_TRUE(pool->dwBytesUsed == 7000 && local->dwBytesUsed == 6999);
        EXPECT_TRUE(pool->lpData[6999] == 2 && local->lpData[0] == 1 && local->lpData[6998] == 1);
    }
    EXPECT_EQ(free(pool) | free(local), 0u);
}

// ---- each allocation fails in turn --------------------------------------------------------------------------------

TEST_F(Commands, EachAllocationFails) {
    const std::pair<uint32_t, bool> commands[] = {
        {DFRAME_COPY, false},    {DFRAME_COPY, true},   {DFRAME_DUP_FREE, false},
        {DFRAME_SWAP, false},    {DFRAME_SWAP, true},   {DFRAME_RESIZE, true},
        {DFRAME_DUP_FREE, true}, {DFRAME_ALLOC, false}, {DFRAME_ALLOC, true}};
    for (unsigned way = 0; way < 8 * std::size(commands); ++way) {
        const auto [command, exists] = commands[way / 8];
        const bool allBehind = way % 2 != 0;
        const bool custom = way % 4 >= 2 && command != DFRAME_SWAP && command != DFRAME_RESIZE && !exists;
        bool failedOnce = true;
        for (uint32_t nth = 1; failedOnce; ++nth) {
            if (way % 8 < 4) { makePool(1000000); }
            PDFRAME source = nullptr, target = nullptr;
            ASSERT_EQ(alloc(source, 20000), 0u);
            std::memset(source->lpData, 7, source->dwBytesUsed = 20000);
            source->dwFlags |= custom ? DFRAME_FLAG_CUSTOM : 0;
            if (exists) { ASSERT_EQ(alloc(target, command == DFRAME_RESIZE ? 5000 : kNoData), 0u); }
            if (command == DFRAME_RESIZE) { std::memset(target->lpData, 7, target->dwBytesUsed = 5000); }
            const DFRAME before = exists ? *target : DFRAME{};
            failNth(nth, allBehind);
            const uint64_t result =
                command == DFRAME_ALLOC ? alloc(target, 30000) : run(command, target, 30000, &source);
            failedOnce = anyFailed();
            failNth(0);
            const bool told = !log.take().empty();
            EXPECT_EQ(told, failedOnce);
            EXPECT_TRUE(result == 0 || static_cast<uint32_t>(result) == DFMEM_E_OUTOFMEMORY);
            EXPECT_TRUE(result == 0 || allBehind || command != DFRAME_SWAP || exists); // the other heap serves
            if (result != 0 && command == DFRAME_RESIZE) {
                EXPECT_EQ(std::memcmp(target, &before, sizeof before), 0); // as it was
            } else if (result != 0) {
                EXPECT_EQ(target, nullptr);
            }
            if (target != nullptr && target->dwBytesUsed != 0) { // nothing is lost on the way
                EXPECT_TRUE(target->lpData[0] == 7 && target->lpData[target->dwBytesUsed - 1] == 7);
            }
            source->dwFlags = 0;
            EXPECT_TRUE(free(source) == 0 && (target == nullptr || free(target) == 0));
            close();
            ASSERT_EQ(blocksOut(), outBefore);
        }
    }
}

// ---- model --------------------------------------------------------------------------------------------------------

enum class Kind { pool, local, own }; // own: the caller's, of a custom frame

// A buffer, and what is known to stand in it. It lives as long as a frame's model holds it.
struct Block {
    uint32_t &cached; // size of the one-block cache
    Kind kind;
    uint32_t size; // of a local one the effective size
    uint8_t *start = nullptr;
    PDFRAME owner = nullptr; // who took it, or got it by an exchange; it may be gone
    std::vector<uint8_t> bytes;

    Block(uint32_t &cache, Kind k, uint32_t request) : cached(cache), kind(k), size(request) {
        const bool served = k == Kind::local && request > 688802 && request <= cached;
        if (served) { size = std::exchange(cached, 0); }
        if (k == Kind::own) { start = new uint8_t[request]; }
    }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    ~Block() {
        if (kind == Kind::local) { cached = std::max(cached, size); }
        if (kind == Kind::own) { delete[] start; }
    }
    void put(uint32_t at, const uint8_t *from, uint32_t count) {
        const std::vector<uint8_t> held(from, from + count); // both may be this block
        bytes.resize(std::max<std::size_t>(bytes.size(), at + count));
        std::copy(held.begin(), held.end(), bytes.begin() + at);
    }
};

struct Model {
    PDFRAME frame = nullptr;
    uint32_t references = 1, length = 0, used = 0;
    uint32_t moved = 0; // of the data pointer in its block
    std::shared_ptr<Block> block;

    bool is(Kind kind) const { return block && block->kind == kind; }
    // Nobody else counts on its buffer.
    bool alone() const { return references == 1 && !is(Kind::own); }
    bool unshared() const { return !is(Kind::own) && block.use_count() < 2; }
    // Where the block has come to lie, told by its frame.
    void settle() const {
        if (!block) { return; }
        block->start = frame->lpData - moved;
        if (block->owner == nullptr) { block->owner = frame; }
    }
    void take(uint32_t at, const Model &from, uint32_t count) {
        ASSERT_GE(from.block->bytes.size(), from.moved + count);
        block->put(at, from.block->bytes.data() + from.moved, count);
    }
};

// The parameter is the size of the pool; 0: none.
class CommandModel : public Commands, public testing::WithParamInterface<uint64_t> {
  protected:
    std::mt19937 random{11};
    uint32_t cached = 0;
    std::vector<Model> live;
    uint64_t usable = GetParam() / 4096 * 4096;
    uint64_t base = 0; // of the pool

    uint32_t upTo(uint32_t most) { return static_cast<uint32_t>(random()) % (most + 1); }
    bool chance(unsigned of) { return random() % of == 0; }

    bool fitsPool(uint32_t request) const { return (request + 4095) / 4096 * 4096 <= largestGap(); }
    // A new block for a request: in the pool if it is asked first and has room, else local. What the frame is told of
    // its length goes back.
    std::shared_ptr<Block> place(uint32_t &request, bool poolFirst, uint32_t floor) {
        const bool inPool = poolFirst && usable != 0 && fitsPool(request);
        if (poolFirst && usable != 0) { request = (request + 4095) / 4096 * 4096; }
        return std::make_shared<Block>(cached, inPool ? Kind::pool : Kind::local,
                                       inPool ? request : std::max(request, floor));
    }
    // In the source's heap and no other; null if that has no room.
    std::shared_ptr<Block> placeIn(uint32_t &request, bool inPool) {
        const bool fails = request == 0 || (inPool && !fitsPool(request));
        return fails ? nullptr : place(request, inPool, 0);
    }
    void doAlloc(Model &model) {
        const bool local = usable == 0 || chance(3);
        static constexpr uint32_t kLargest[] = {100, 5000, 40000, 900000};
        const uint32_t wanted = 1 + upTo(kLargest[chance(6) ? 3 : random() % 3]);
        model.block = nullptr; // replaced data goes before the new one is made
        model.moved = 0;
        model.length = static_cast<uint32_t>(wanted * 1.4);
        model.block = place(model.length, !local, 4096);
        ASSERT_EQ(alloc(model.frame, wanted, local ? DFRAME_FLAG_SYSHEAP : 0), 0u);
        write(model);
    }
    void doCustom(Model &model) {
        ASSERT_EQ(alloc(model.frame, kNoData), 0u);
        model.length = 1 + upTo(9000);
        model.block = std::make_shared<Block>(cached, Kind::own, model.length);
        model.frame->dwFlags |= DFRAME_FLAG_CUSTOM;
        model.frame->lpData = model.block->start;
        model.frame->dwBufferLength = model.length;
        write(model);
    }
    // The caller fills a part of the buffer.
    void write(Model &model) {
        model.settle();
        model.used = model.frame->dwBytesUsed = chance(8) ? model.length : upTo(model.length);
        std::generate_n(+model.frame->lpData, model.used, [&] { return static_cast<uint8_t>(random()); });
        model.block->put(0, model.frame->lpData, model.used);
    }
    void doFree(std::size_t at) {
        Model &model = live[at];
        if (model.is(Kind::own)) {
            model.frame->dwFlags = 0;
            model.frame->lpData = nullptr;
        }
        PDFRAME handle = model.frame;
        ASSERT_EQ(free(handle), 0u);
        if (--model.references == 0) { live.erase(live.begin() + static_cast<std::ptrdiff_t>(at)); }
    }
    // Runs a command of two frames. Want of memory costs an existing target.
    void runOn(uint32_t command, Model &source, Model &target, int64_t param1, uint64_t expected) {
        const PDFRAME before = target.frame;
        ASSERT_EQ(run(command, target.frame, param1, &source.frame), expected);
        const bool lost = before != nullptr && static_cast<uint32_t>(expected) == DFMEM_E_OUTOFMEMORY;
        ASSERT_EQ(target.frame == nullptr, lost);
        ASSERT_TRUE(lost || before == nullptr || target.frame == before);
    }
    void doCopy(Model &source, Model &target) {
        const bool made = target.frame == nullptr, inPool = source.is(Kind::pool);
        const uint32_t moved = source.is(Kind::own) ? 0 : source.moved;
        uint32_t length = source.length + (source.used != source.length ? 0 : source.used < 19200 ? 16 : 4096);
        if (made) {
            length += moved;
            target.block = place(length, inPool, 4096);
            target.length = length;
        } else if (target.block && target.length < source.used) {
            if (target.is(Kind::own)) { return runOn(DFRAME_COPY, source, target, 0, DFMEM_E_INVALIDARG); }
            target.block = nullptr;
            target.length = 0;
        }
        if (!target.block && source.length != 0) {
            target.block = placeIn(length, inPool);
            target.moved = 0;
            target.length = length;
        }
        const bool fails = !target.block && source.length != 0;
        runOn(DFRAME_COPY, source, target, 0, fails ? kWidenedOutOfMemory : 0);
        if (fails) { return; }
        target.used = source.length != 0 ? source.used : 0;
        if (!target.block) { target.moved = 0; }
        if (target.used == 0) { return target.settle(); }
        if (made) {
            target.block->put(0, source.block->bytes.data(), moved);
            target.moved = moved;
            target.length -= moved;
        }
        target.settle();
        target.take(target.moved, source, source.used);
    }
    void doDup(Model &source, Model &target) {
        const bool custom = source.is(Kind::own);
        if (custom && target.frame != nullptr) {
            return runOn(DFRAME_DUP_FREE, source, target, 0, DFMEM_E_INVALIDARG);
        }
        target.length = source.length;
        target.used = source.used;
        target.moved = source.moved;
        target.block = custom ? place(target.length, true, 4096) : source.block;
        runOn(DFRAME_DUP_FREE, source, target, 0, 0);
        target.settle();
        if (custom) { target.take(0, source, source.used); }
    }
    void doSwap(Model &source, Model &target) {
        const bool made = target.frame == nullptr, inPool = source.is(Kind::pool);
        if (target.block && inPool != target.is(Kind::pool) && target.used == 0 && source.used > target.length) {
            return; // copied as far as it fits, and told to be used to its end: an overwrite from here on
        }
        const int64_t asked = chance(3) ? -1 - static_cast<int64_t>(random()) : upTo(50000);
        const auto least = static_cast<uint32_t>(std::max<int64_t>(asked, 0));
        if (made) {
            target.length = std::max(least, source.length);
            target.block = target.length != 0 ? place(target.length, inPool, 4096) : nullptr;
        } else if (!target.block) {
            target.length = std::max(least, target.length);
            target.block = placeIn(target.length, inPool);
        }
        const bool fails = !made && !target.block;
        const bool exchanges = source.block && target.block;
        const bool oneHeap = exchanges && source.block->kind == target.block->kind;
        const bool oneWay = made || target.used == 0;
        const bool refused =
            exchanges && !oneHeap && !oneWay && (source.used >= target.length || target.used >= source.length);
        runOn(DFRAME_SWAP, source, target, asked, fails ? DFMEM_E_OUTOFMEMORY : refused ? DFMEM_E_FAILED : 0);
        if (fails) { return; }
        if (oneHeap) {
            std::swap(source.block, target.block);
            std::swap(source.moved, target.moved);
            std::swap(source.length, target.length);
            source.block->owner = source.frame;
            target.block->owner = target.frame;
        } else if (exchanges && !refused) {
            const std::vector<uint8_t> held = source.block->bytes;
            if (!oneWay) { source.take(source.moved, target, target.used); }
            target.block->put(target.moved, held.data() + source.moved, source.used);
        }
        if (exchanges && !refused) { std::swap(source.used, target.used); }
        source.settle();
        target.settle();
    }
    void doResize(Model &model) {
        const uint32_t wanted = chance(8) ? 0 : chance(8) ? model.length : upTo(60000);
        Model after = model;
        const bool inPool = model.is(Kind::pool); // there the pointer has to lie in the block still
        uint32_t request = wanted + model.moved;
        if (inPool && wanted == 0 && model.moved != 0 && model.moved % 4096 == 0) { ++request; }
        const bool works = model.block && wanted != model.length;
        if (works) { after.block = placeIn(request, inPool); }
        const bool fails = works && !after.block && request != 0;
        ASSERT_EQ(run(DFRAME_RESIZE, model.frame, wanted), fails                             ? DFMEM_E_OUTOFMEMORY
                                                           : works || wanted == model.length ? 0
                                                                                             : kNowhere);
        if (!works || fails) { return; }
        after.length = wanted;
        after.used = std::min(model.used, wanted);
        after.settle();
        if (after.block) { after.block->put(0, model.block->bytes.data(), model.moved + after.used); }
        model = std::move(after);
    }
    void doMove(Model &model) {
        if (!model.block || model.is(Kind::own) || model.length == 0 || model.moved > 150000) { return; }
        uint32_t by = upTo(std::min({model.used, model.length - 1, 60000u}));
        if (chance(2)) { by = by / 4096 * 4096; }
        model.frame->lpData += by;
        model.moved += by;
        model.frame->dwBufferLength = model.length -= by;
        model.frame->dwBytesUsed = model.used -= by;
    }
    void doFix(Model &model) {
        const bool custom = model.is(Kind::own);
        ASSERT_EQ(run(DFRAME_FIXALLOC, model.frame), custom ? DFMEM_E_INVALIDARG : 0);
        if (!custom) { model.moved = 0; }
    }
    void check(const Model &model) {
        PDFRAME frame = model.frame;
        ASSERT_EQ(countOf(frame), model.references);
        ASSERT_EQ(frame->dwBufferLength, model.length);
        ASSERT_EQ(frame->dwBytesUsed, model.used);
        ASSERT_EQ((frame->dwFlags & DFRAME_FLAG_CUSTOM) != 0, model.is(Kind::own));
        ASSERT_EQ(run(DFRAME_ISLOCAL, frame), model.is(Kind::local) ? 1u : 0u);
        ASSERT_EQ(run(DFRAME_ISBRENVOLE, frame), model.is(Kind::pool) ? 1u : 0u);
        if (!model.block) {
            ASSERT_EQ(+frame->lpData, nullptr);
            return;
        }
        const Block &block = *model.block;
        ASSERT_EQ(frame->lpData, block.start + model.moved);
        ASSERT_LE(model.moved + model.length, block.size);
        ASSERT_TRUE(std::equal(block.bytes.begin(), block.bytes.end(), block.start));
        const auto start = reinterpret_cast<uintptr_t>(block.start);
        ASSERT_EQ(run(DFRAME_FINDALLOC, frame), model.is(Kind::own)    ? DFMEM_E_INVALIDARG
                                                : model.is(Kind::pool) ? model.moved
                                                                       : start);
        if (model.is(Kind::local)) {
            const auto *const descriptor = reinterpret_cast<const brenvole::PHALLOC *>(start - 128);
            ASSERT_EQ(descriptor->pOwner, reinterpret_cast<uintptr_t>(block.owner));
            uint32_t count = 0;
            for (const Model &m : live) { count += m.block == model.block ? m.references : 0; }
            ASSERT_EQ(descriptor->lRefCount, static_cast<int32_t>(count));
        }
        ASSERT_EQ(start % (model.is(Kind::own) ? 1 : model.is(Kind::pool) ? 4096 : 16384), 0u);
    }
    // By address, each once.
    std::map<uint64_t, uint64_t> blocks(Kind kind) const {
        std::map<uint64_t, uint64_t> found;
        for (const Model &model : live) {
            if (model.is(kind)) { found[reinterpret_cast<uint64_t>(model.block->start)] = model.block->size; }
        }
        return found;
    }
    // What lies free between the blocks of the pool.
    std::vector<uint64_t> gaps() const {
        std::vector<uint64_t> free;
        uint64_t from = base;
        for (const auto &[start, size] : blocks(Kind::pool)) {
            if (start != from) { free.push_back(start - from); }
            from = start + size;
        }
        if (from != base + usable) { free.push_back(base + usable - from); }
        return free;
    }
    uint64_t largestGap() const {
        const std::vector<uint64_t> free = gaps();
        return free.empty() ? 0 : *std::max_element(free.begin(), free.end());
    }
    void checkFigures() {
        const std::vector<uint64_t> free = gaps();
        const uint64_t available = std::accumulate(free.begin(), free.end(), uint64_t{0});
        const auto locals = blocks(Kind::local);
        uint64_t local = cached;
        for (const auto &[start, size] : locals) { local += size; }
        if (usable != 0) {
            ASSERT_EQ(run(DFRAME_TOTAL), GetParam());
            ASSERT_EQ(run(DFRAME_TOTALAVAIL), available);
            ASSERT_EQ(run(DFRAME_TOTALUSED), usable - available);
            ASSERT_EQ(run(DFRAME_LARGEST), largestGap());
        }
        ASSERT_EQ(run(DFRAME_TOTALUSED | DFRAME_FLAG_SYSHEAP), usable == 0 || local < GetParam() ? local : 0);
        const std::size_t records = usable != 0 ? 2 + blocks(Kind::pool).size() + free.size() : 0;
        ASSERT_EQ(blocksOut(),
                  outBefore + static_cast<int64_t>(live.size() + locals.size() + records + (cached != 0 ? 1 : 0)));
    }
    // A command of two frames, on a target that is there or on one that it makes.
    void pairStep(unsigned dice, Model &source, Model &target) {
        const bool made = target.frame == nullptr;
        if (dice < 12 && target.references == 1) { doCopy(source, target); }
        if (dice == 12 && (made || target.alone()) && (usable != 0 || !source.is(Kind::own))) {
            doDup(source, target);
        }
        if (dice > 12 && source.unshared() && (made || (target.alone() && target.unshared()))) {
            doSwap(source, target);
        }
    }
    void step() {
        const auto dice = static_cast<unsigned>(random() % 15);
        const bool room = live.size() < 20;
        if (live.size() < 3 || (dice < 3 && room)) {
            Model model;
            dice == 2 ? doCustom(model) : doAlloc(model);
            live.push_back(std::move(model));
        } else if (dice < 5) {
            doFree(random() % live.size());
        } else if (Model &model = live[random() % live.size()]; dice == 5 && model.alone() && model.length != 0) {
            doAlloc(model);
        } else if (dice == 6 && model.block && !model.is(Kind::own)) {
            ASSERT_EQ(run(DFRAME_ADDREF, model.frame), 0u);
            ++model.references;
        } else if (dice == 7) {
            doFix(model);
        } else if (dice == 8 && model.alone() && model.unshared()) {
            doResize(model);
        } else if (dice < 10) {
            doMove(model);
        } else if (Model &other = live[random() % live.size()]; room && chance(2)) {
            Model made;
            pairStep(dice, model, made);
            if (made.frame != nullptr) { live.push_back(std::move(made)); }
        } else if (&model != &other) {
            pairStep(dice, model, other);
            std::erase_if(live, [](const Model &m) { return m.frame == nullptr; });
        }
    }
};

TEST_P(CommandModel, RandomCommands) {
    if (usable != 0) {
        makePool(static_cast<int64_t>(GetParam()));
        PDFRAME first = nullptr; // the first block from the bottom lies where the pool begins
        ASSERT_EQ(alloc(first, 10000), 0u);
        base = reinterpret_cast<uint64_t>(+first->lpData);
        ASSERT_EQ(free(first), 0u);
    }
    for (int number = 0; number < (kSanitized ? 3000 : 10000) && !HasFatalFailure(); ++number) {
        SCOPED_TRACE(number);
        step();
        log.take();
        for (const Model &model : live) { check(model); }
        checkFigures();
    }
    while (!live.empty() && !HasFatalFailure()) { doFree(0); }
    checkFigures();
}
// No pool; one that holds a handful of frames, so that it is full most of the time; one that holds nearly all.
INSTANTIATE_TEST_SUITE_P(Pools, CommandModel, testing::Values(0, 400000, 9000000));

} // namespace
