// The commands that copy, share, exchange, resize and place data: header tables, refusals, what fails on the way, and
// all of them at random beside a model. Nothing here needs more than the exported names.
#include "harness.h"

#include <brenvole/dframe.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>

#include <sys/mman.h>

namespace {

constexpr uint64_t kWidenedOutOfMemory = 0xFFFFFFFFE8108020;
constexpr uint64_t kNowhere = UINT64_MAX;
constexpr int64_t kNoData = 0xB6DB6DB7; // times 1.4 is 0 in 32 bits

uint64_t run(uint32_t command, PDFRAME &frame, int64_t param1 = 0, PDFRAME *source = nullptr) {
    return DFrameMem(command, param1, reinterpret_cast<uintptr_t>(source), &frame);
}
uint64_t alloc(PDFRAME &frame, int64_t size, uint32_t side = 0) {
    return DFrameMem(DFRAME_ALLOC | side, size, DFRAME_SIZE, &frame);
}
uint64_t free(PDFRAME &frame) { return run(DFRAME_FREE, frame); }

struct Commands : testing::Test {
    LogCapture log;
    int64_t outBefore = (close(), blocksOut());

    ~Commands() override {
        failNth(0);
        close();
        EXPECT_EQ(blocksOut(), outBefore);
    }
    void close() {
        EXPECT_EQ(log.take(), Texts{});
        DFrameMem(DFRAME_CLOSE, 0, 0, nullptr);
        log.take();
    }
    void makePool(int64_t size) {
        ASSERT_EQ(DFrameMem(DFRAME_RESET, size, 0, nullptr), 0u);
        log.take();
    }
};

// ---- header tables ------------------------------------------------------------------------------------------------

// How each command leaves each field. d its own, s the other frame's, 0 null, A the attach stamp, c the copy size,
// t own without the tail's flag, T the other's without it, C the other's but its own custom flag, n the other's
// without custom flag, - told by other tests. Columns: 0 copy, destination; 1 dup, sharing; 2 dup of a custom source,
// new; 3 swap, target; 4 swap, source; 5 swap, new target; 6 swap, source of a new target; 7 fix; 8 resize.
const struct Field {
    const char *name;
    std::size_t offset, size;
    const char *rules;
} kFields[] = {{"lpLink", 0, 24,
                "0ddddd"
                "ddd"},
               {"dwSize", 24, 4,
                "ddcddc"
                "ddd"},
               {"dwFlags", 28, 4,
                "CsnTTT"
                "t0d"},
               {"dwAttachMark", 32, 4,
                "Assss"
                "sdAd"},
               {"abBodyHead", 36, 8236,
                "ssssss"
                "ddd"},
               {"lpTail", 8272, 8,
                "000000"
                "ddd"},
               {"dwTailLength", 8280, 4,
                "ssssss"
                "ddd"},
               {"abBodyRest", 8284, 128,
                "ssssss"
                "ddd"},
               {"dwTrailA", 8412, 4,
                "sssddd"
                "d0d"},
               {"dwAttachValue", 8416, 4,
                "Asssss"
                "dAd"},
               {"dwTrailB", 8420, 4,
                "sssddd"
                "d0d"},
               {"dwCreateMark", 8424, 4,
                "ssssss"
                "d0d"},
               {"lpData", 8428, 8,
                "ds-sss"
                "---"},
               {"dwBufferLength", 8436, 4,
                "ds-sss"
                "-d-"},
               {"dwBytesUsed", 8440, 4,
                "ssssss"
                "0dd"},
               {"qwTrailC", 8444, 8,
                "ssssss"
                "d0d"},
               {"dwTrailD", 8452, 4,
                "ssssss"
                "d0d"},
               {"dwTrailE", 8456, 4,
                "dssddd"
                "d0d"},
               {"dwTrailF", 8460, 4,
                "ssssds"
                "d0d"},
               {"dwTrailG", 8464, 4,
                "ssssds"
                "d0d"},
               {"dwTrailH", 8468, 4,
                "ssssds"
                "d0d"},
               {"dwTrailI", 8472, 4,
                "ssssds"
                "d0d"},
               {"wTrailJ", 8476, 2,
                "sssddd"
                "ddd"},
               {"abEnd", 8478, 2,
                "dddddd"
                "ddd"}};

void checkHeader(int column, const DFRAME *after, const DFRAME &own, const DFRAME &other) {
    for (const Field &field : kFields) {
        const auto at = [&](const DFRAME *frame) { return reinterpret_cast<const char *>(frame) + field.offset; };
        std::vector<char> expected(field.size);
        const auto set = [&](uint64_t value) {
            std::memcpy(expected.data(), &value, std::min<std::size_t>(8, field.size));
        };
        const char rule = field.rules[column];
        switch (rule) {
        case 'd': std::memcpy(expected.data(), at(&own), field.size); break;
        case 's': std::memcpy(expected.data(), at(&other), field.size); break;
        case 'A': set(field.offset == 32 ? 1 : 65520); break;
        case 'c': set(DFRAME_SIZE + other.dwTailLength); break;
        case 't': set(own.dwFlags & ~DFRAME_FLAG_TAIL); break;
        case 'T': set(other.dwFlags & ~DFRAME_FLAG_TAIL); break;
        case 'C': set((other.dwFlags & ~DFRAME_FLAG_CUSTOM) | (own.dwFlags & DFRAME_FLAG_CUSTOM)); break;
        case 'n': set(other.dwFlags & ~DFRAME_FLAG_CUSTOM); break;
        default: break;
        }
        if (rule != '-') {
            EXPECT_EQ(std::memcmp(at(after), expected.data(), field.size), 0) << field.name << " " << column;
        }
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
        for (int column = 0; column < 9; ++column) {
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
        {DFRAME_RESIZE, 1, nullptr, &custom, DFMEM_E_INVALIDARG, {"DFRAME_RESIZE|NotAnyHeap(0xE8108004)"}},
        {DFRAME_RESIZE, -1, nullptr, &plain, DFMEM_E_INVALIDARG, {"DFRAME_RESIZE|BadSize(0xE8108004)"}},
        {DFRAME_RESIZE, INT64_C(1) << 32, nullptr, &plain, DFMEM_E_INVALIDARG, {"DFRAME_RESIZE|BadSize(0xE8108004)"}},
        {DFRAME_RESIZE, 0xFFFFFFFF, nullptr, &plain, DFMEM_E_OUTOFMEMORY, {"DFRAME_RESIZE|NoMemory(0xE8108020)"}},
        {DFRAME_RESIZE, 9, nullptr, &empty, kNowhere, {}},
        {DFRAME_RESIZE, 9, nullptr, &lost, kNowhere, {}},
        {DFRAME_ISLOCAL, 0, nullptr, nullptr, 0, {}},
        {DFRAME_ISLOCAL, 0, nullptr, &null, 0, {}},
        {DFRAME_ISLOCAL, 0, nullptr, &custom, 0, {}},
        {DFRAME_ISLOCAL, 0, nullptr, &empty, 0, {}},
        {DFRAME_ISLOCAL, 0, nullptr, &lost, 0, {}},
        {DFRAME_ISLOCAL, 0, nullptr, &plain, 1, {}},
        {DFRAME_ISBRENVOLE, 0, nullptr, nullptr, 0, {}},
        {DFRAME_ISBRENVOLE, 0, nullptr, &null, 0, {}},
        {DFRAME_ISBRENVOLE, 0, nullptr, &plain, 0, {}},
        {DFRAME_FINDALLOC, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_FINDALLOC|pDF==NULL(0xE8108005)"}},
        {DFRAME_FINDALLOC, 0, nullptr, &null, DFMEM_E_INVALIDARG, {}},
        {DFRAME_FINDALLOC, 0, nullptr, &custom, DFMEM_E_INVALIDARG, {}},
        {DFRAME_FINDALLOC, 0, nullptr, &empty, 0, {}},
        {DFRAME_FINDALLOC, 0, nullptr, &lost, kNowhere, {}},
        {DFRAME_FIXALLOC, 0, nullptr, nullptr, DFMEM_E_POINTER, {"DFRAME_FIXALLOC|pDF==NULL(0xE8108005)"}},
        {DFRAME_FIXALLOC, 0, nullptr, &null, DFMEM_E_INVALIDARG, {}},
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
        EXPECT_EQ(run(DFRAME_DUP_FREE, shared, 0, &a), 0u);
        EXPECT_EQ(free(shared), 0u);
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

// ---- each allocation fails in turn --------------------------------------------------------------------------------

TEST_F(Commands, EachAllocationFails) {
    const std::pair<uint32_t, bool> commands[] = {
        {DFRAME_COPY, false}, {DFRAME_COPY, true},   {DFRAME_DUP_FREE, false}, {DFRAME_SWAP, false},
        {DFRAME_SWAP, true},  {DFRAME_RESIZE, true}, {DFRAME_DUP_FREE, true}};
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
            const uint64_t result = run(command, target, 30000, &source);
            failedOnce = anyFailed();
            failNth(0);
            const bool told = !log.take().empty();
            EXPECT_EQ(told, failedOnce);
            EXPECT_TRUE(result == 0 || static_cast<uint32_t>(result) == DFMEM_E_OUTOFMEMORY);
            EXPECT_TRUE(result == 0 || failedOnce);
            if (result != 0 && command == DFRAME_RESIZE) {
                EXPECT_EQ(std::memcmp(target, &before, sizeof before), 0); // as it was
            } else if (result != 0) {
                EXPECT_EQ(target, nullptr);
            }
            if (target != nullptr && target->dwBytesUsed != 0) { // nothing is lost on the way
                EXPECT_EQ(target->lpData[0], 7);
                EXPECT_EQ(target->lpData[target->dwBytesUsed - 1], 7);
            }
            source->dwFlags = 0;
            EXPECT_EQ(free(source), 0u);
            EXPECT_TRUE(target == nullptr || free(target) == 0);
            close();
            ASSERT_EQ(blocksOut(), outBefore);
        }
    }
}

// ---- model --------------------------------------------------------------------------------------------------------

// The one-block cache, as its rules tell.
struct CacheModel {
    uint32_t size = 0;
    uint32_t take(uint32_t request) {
        const bool serves = request > 688802 && request <= size;
        return serves ? std::exchange(size, 0) : request;
    }
};

// A block in either heap, and what is known to stand in it. It lives as long as a frame's model holds it.
struct Block {
    CacheModel &cache;
    bool pool;
    uint32_t size; // of a local one the effective size
    uint8_t *start = nullptr;
    std::vector<uint8_t> bytes;

    Block(CacheModel &c, bool inPool, uint32_t request)
        : cache(c), pool(inPool), size(inPool ? request : c.take(request)) {}
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    ~Block() {
        if (!pool) { cache.size = std::max(cache.size, size); }
    }
    void put(uint32_t at, const uint8_t *from, uint32_t count) {
        const std::vector<uint8_t> held(from, from + count); // both may be this block
        bytes.resize(std::max<std::size_t>(bytes.size(), at + count));
        std::copy(held.begin(), held.end(), bytes.begin() + at);
    }
};

struct Model {
    PDFRAME frame = nullptr;
    uint32_t references = 1;
    uint32_t length = 0, used = 0;
    uint32_t moved = 0; // of the data pointer in its block
    std::shared_ptr<Block> block;
    std::shared_ptr<std::vector<uint8_t>> own; // of a custom frame
};

// The parameter is the size of the pool; 0: none.
class CommandModel : public Commands, public testing::WithParamInterface<uint64_t> {
  protected:
    std::mt19937 random{11};
    CacheModel cache;
    std::vector<Model> live;
    uint64_t usable = GetParam() / 4096 * 4096;
    uint64_t base = 0; // of the pool

    uint32_t upTo(uint32_t most) { return static_cast<uint32_t>(random()) % (most + 1); }
    static uint64_t figure(uint32_t command) { return DFrameMem(command, 0, 0, nullptr); }
    bool chance(unsigned of) { return random() % of == 0; }
    std::size_t any() { return random() % live.size(); }
    // One whose buffer nobody else counts on.
    static bool alone(const Model &model) { return model.references == 1 && !model.own; }
    static bool unshared(const Model &model) { return !model.own && model.block.use_count() < 2; }

    // A new block for a request: in the pool if it is asked first and has room, else local. What a frame is told of
    // the length goes back.
    std::shared_ptr<Block> place(uint32_t &request, bool poolFirst, uint32_t floor) {
        if (poolFirst && usable != 0) {
            request = (request + 4095) / 4096 * 4096;
            if (request <= largestGap()) { return std::make_shared<Block>(cache, true, request); }
        }
        return std::make_shared<Block>(cache, false, std::max(request, floor));
    }
    bool fitsPool(uint32_t request) { return (request + 4095) / 4096 * 4096 <= largestGap(); }
    // Where the block has come to lie, told by its frame.
    static void settle(Model &model) { model.block->start = model.frame->lpData - model.moved; }
    static void read(const Model &from, Model &to, uint32_t at, uint32_t count) {
        ASSERT_TRUE(from.own || from.block->bytes.size() >= from.moved + count);
        const uint8_t *const bytes = from.own ? from.own->data() : from.block->bytes.data() + from.moved;
        to.block->put(at, bytes, count);
    }
    // The caller writes: all of the buffer that a random part is then used of.
    void write(Model &model) {
        model.used = model.frame->dwBytesUsed = chance(8) ? model.length : upTo(model.length);
        std::vector<uint8_t> bytes(model.used);
        for (uint8_t &byte : bytes) { byte = static_cast<uint8_t>(random()); }
        std::copy(bytes.begin(), bytes.end(), +model.frame->lpData);
        if (model.own) {
            *model.own = bytes;
            model.own->resize(model.length);
        } else {
            model.block->put(model.moved, bytes.data(), model.used);
        }
    }

    void doAlloc(Model &model) {
        const bool local = usable == 0 || chance(3);
        static constexpr uint32_t kLargest[] = {100, 5000, 40000, 900000};
        const uint32_t wanted = 1 + upTo(kLargest[chance(6) ? 3 : random() % 3]);
        model.block = nullptr; // replaced data goes before the new one is made
        model.moved = 0;
        model.length = static_cast<uint32_t>(wanted * 1.4);
        auto block = place(model.length, !local, 4096);
        ASSERT_EQ(alloc(model.frame, wanted, local ? DFRAME_FLAG_SYSHEAP : 0), 0u);
        model.block = std::move(block);
        settle(model);
        write(model);
    }
    void doCustom() {
        Model model;
        ASSERT_EQ(alloc(model.frame, kNoData), 0u);
        model.length = 1 + upTo(9000);
        model.own = std::make_shared<std::vector<uint8_t>>(model.length);
        model.frame->dwFlags |= DFRAME_FLAG_CUSTOM;
        model.frame->lpData = model.own->data();
        model.frame->dwBufferLength = model.length;
        live.push_back(model);
    }
    void doFree(std::size_t at) {
        Model &model = live[at];
        if (model.own) {
            model.frame->dwFlags = 0;
            model.frame->lpData = nullptr;
        }
        PDFRAME handle = model.frame;
        ASSERT_EQ(free(handle), 0u);
        if (--model.references == 0) { live.erase(live.begin() + static_cast<std::ptrdiff_t>(at)); }
    }
    void drop(const Model &model) {
        live.erase(std::find_if(live.begin(), live.end(), [&](const Model &m) { return m.frame == model.frame; }));
    }
    static bool inPool(const Model &model) { return model.block && model.block->pool; }

    void doCopy(Model &source, Model *existing) {
        const uint32_t room = source.used != source.length ? 0 : source.used < 19200 ? 16 : 4096;
        uint32_t length = source.length + room;
        PDFRAME handle = existing != nullptr ? existing->frame : nullptr;
        if (existing == nullptr) {
            Model made;
            made.length = length + source.moved;
            made.block = place(made.length, inPool(source), 4096);
            ASSERT_EQ(run(DFRAME_COPY, handle, 0, &source.frame), 0u);
            made.frame = handle;
            if (source.used != 0) {
                read(source, made, source.moved, source.used);
                if (source.moved != 0) { made.block->put(0, source.block->bytes.data(), source.moved); }
                made.moved = source.moved;
                made.length -= made.moved;
                made.used = source.used;
            }
            settle(made);
            live.push_back(std::move(made));
            return;
        }
        const bool small = (existing->block || existing->own) && existing->length < source.used;
        if (small && existing->own) {
            ASSERT_EQ(run(DFRAME_COPY, handle, 0, &source.frame), DFMEM_E_INVALIDARG);
            return;
        }
        std::shared_ptr<Block> block = small ? nullptr : existing->block;
        if (small) { existing->block = nullptr; }
        const bool needs = !existing->own && !block && source.length != 0;
        const bool fails = needs && inPool(source) && !fitsPool(length);
        if (needs && !fails) { block = place(length, inPool(source), 0); }
        ASSERT_EQ(run(DFRAME_COPY, handle, 0, &source.frame), fails ? kWidenedOutOfMemory : 0);
        if (fails) {
            ASSERT_EQ(handle, nullptr);
            drop(*existing);
            return;
        }
        existing->used = source.length != 0 ? source.used : 0;
        if (small || needs) {
            existing->moved = 0;
            existing->length = needs ? length : 0;
        }
        existing->block = block;
        if (needs) { settle(*existing); }
        if (existing->used != 0 && existing->own) {
            std::copy_n(source.own ? source.own->data() : source.block->bytes.data() + source.moved, source.used,
                        existing->own->begin());
        } else if (existing->used != 0) {
            read(source, *existing, existing->moved, source.used);
        }
    }
    void doDup(Model &source, Model *existing) {
        PDFRAME handle = existing != nullptr ? existing->frame : nullptr;
        if (source.own && existing != nullptr) {
            ASSERT_EQ(run(DFRAME_DUP_FREE, handle, 0, &source.frame), DFMEM_E_INVALIDARG);
            return;
        }
        Model made;
        Model &target = existing != nullptr ? *existing : made;
        target.length = source.length;
        target.used = source.used;
        target.moved = source.own ? 0 : source.moved;
        target.block = source.own ? place(target.length, true, 4096) : source.block;
        ASSERT_EQ(run(DFRAME_DUP_FREE, handle, 0, &source.frame), 0u);
        target.frame = handle;
        if (source.own) {
            settle(target);
            read(source, target, 0, source.used);
        }
        if (existing == nullptr) { live.push_back(std::move(made)); }
    }
    void doSwap(Model &source, Model *existing) {
        const uint32_t least = chance(2) ? 0 : upTo(50000);
        if (existing != nullptr && existing->block && inPool(source) != inPool(*existing) && existing->used == 0 &&
            source.used > existing->length) {
            return; // copied as far as it fits, and told to be used to its end: an overwrite from here on
        }
        PDFRAME handle = existing != nullptr ? existing->frame : nullptr;
        Model made;
        Model &target = existing != nullptr ? *existing : made;
        bool fails = false;
        if (existing == nullptr) {
            made.length = std::max(least, source.length);
            if (made.length != 0) { made.block = place(made.length, inPool(source), 4096); }
        } else if (!target.block) {
            target.length = std::max(least, target.length);
            fails = target.length == 0 || (inPool(source) && !fitsPool(target.length));
            if (!fails) { target.block = place(target.length, inPool(source), 0); }
        }
        const bool exchanges = !fails && source.block && target.block;
        const bool oneHeap = exchanges && source.block->pool == target.block->pool;
        const bool oneWay = existing == nullptr || target.used == 0;
        const bool refused =
            exchanges && !oneHeap && !oneWay && (source.used >= target.length || target.used >= source.length);
        ASSERT_EQ(run(DFRAME_SWAP, handle, least, &source.frame), fails     ? DFMEM_E_OUTOFMEMORY
                                                                  : refused ? DFMEM_E_FAILED
                                                                            : 0);
        if (fails) {
            ASSERT_EQ(handle, nullptr);
            drop(target);
            return;
        }
        target.frame = handle;
        if (oneHeap) {
            std::swap(source.block, target.block);
            std::swap(source.moved, target.moved);
            std::swap(source.length, target.length);
        } else if (exchanges && !refused) {
            const std::vector<uint8_t> held(source.block->bytes.begin() + source.moved,
                                            source.block->bytes.begin() + source.moved + source.used);
            if (!oneWay) { read(target, source, source.moved, target.used); }
            target.block->put(target.moved, held.data(), std::min(source.used, target.length));
        }
        if (exchanges && !refused) { std::swap(source.used, target.used); }
        for (Model *model : {&source, &target}) {
            if (model->block) { settle(*model); }
        }
        if (existing == nullptr) { live.push_back(std::move(made)); }
    }
    void doResize(Model &model) {
        uint32_t wanted = chance(8) ? 0 : chance(8) ? model.length : upTo(60000);
        const uint32_t length = wanted;
        if (!model.block || wanted == model.length) {
            ASSERT_EQ(run(DFRAME_RESIZE, model.frame, wanted), wanted == model.length ? 0 : kNowhere);
            return;
        }
        uint32_t request = wanted + model.moved;
        const bool fails = request != 0 && inPool(model) && !fitsPool(request);
        Model after = model;
        after.block = fails || request == 0 ? nullptr : place(request, inPool(model), 0);
        ASSERT_EQ(run(DFRAME_RESIZE, model.frame, wanted), fails ? DFMEM_E_OUTOFMEMORY : 0);
        if (fails) { return; }
        after.length = length;
        after.used = std::min(model.used, length);
        if (after.block) {
            settle(after);
            after.block->put(0, model.block->bytes.data(), model.moved + after.used);
        } else {
            after.moved = 0;
        }
        model = std::move(after);
    }
    void doMove(Model &model) {
        if (!model.block || model.length == 0 || model.moved > 150000) { return; }
        const uint32_t by = upTo(std::min({model.used, model.length - 1, 60000u}));
        model.frame->lpData += by;
        model.moved += by;
        model.frame->dwBufferLength = model.length -= by;
        model.frame->dwBytesUsed = model.used -= by;
    }
    void doFix(Model &model) {
        ASSERT_EQ(run(DFRAME_FIXALLOC, model.frame), model.own ? DFMEM_E_INVALIDARG : 0);
        if (!model.own) { model.moved = 0; }
    }

    void check(const Model &model) {
        PDFRAME frame = model.frame;
        ASSERT_EQ(reinterpret_cast<uint32_t *>(frame)[-1], model.references);
        ASSERT_EQ(frame->dwBufferLength, model.length);
        ASSERT_EQ(frame->dwBytesUsed, model.used);
        ASSERT_EQ((frame->dwFlags & DFRAME_FLAG_CUSTOM) != 0, model.own != nullptr);
        if (model.own) {
            ASSERT_EQ(+frame->lpData, model.own->data());
            ASSERT_EQ(std::memcmp(frame->lpData, model.own->data(), model.used), 0);
            return;
        }
        ASSERT_EQ(run(DFRAME_ISLOCAL, frame), model.block && !model.block->pool ? 1u : 0u);
        ASSERT_EQ(run(DFRAME_ISBRENVOLE, frame), inPool(model) ? 1u : 0u);
        if (!model.block) {
            ASSERT_EQ(+frame->lpData, nullptr);
            return;
        }
        const Block &block = *model.block;
        ASSERT_EQ(frame->lpData, block.start + model.moved);
        ASSERT_EQ(reinterpret_cast<uintptr_t>(block.start) % (block.pool ? 4096 : 16384), 0u);
        ASSERT_EQ(run(DFRAME_FINDALLOC, frame), block.pool ? model.moved : reinterpret_cast<uintptr_t>(block.start));
        ASSERT_LE(model.moved + model.length, block.size);
        ASSERT_TRUE(std::equal(block.bytes.begin(), block.bytes.end(), block.start));
    }
    std::vector<const Block *> blocks(bool pool) const {
        std::vector<const Block *> found;
        for (const Model &model : live) {
            if (model.block && model.block->pool == pool) { found.push_back(model.block.get()); }
        }
        std::sort(found.begin(), found.end(), [](const Block *a, const Block *b) { return a->start < b->start; });
        found.erase(std::unique(found.begin(), found.end()), found.end());
        return found;
    }
    // What lies free between the blocks of the pool, in the order of their addresses.
    std::vector<uint64_t> gaps() const {
        std::vector<uint64_t> free;
        uint64_t from = base;
        for (const Block *block : blocks(true)) {
            const auto start = reinterpret_cast<uint64_t>(block->start);
            if (start != from) { free.push_back(start - from); }
            from = start + block->size;
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
        uint64_t local = cache.size;
        for (const Block *block : blocks(false)) { local += block->size; }
        if (usable != 0) {
            ASSERT_EQ(figure(DFRAME_TOTAL), GetParam());
            ASSERT_EQ(figure(DFRAME_TOTALAVAIL), available);
            ASSERT_EQ(figure(DFRAME_TOTALUSED), usable - available);
            ASSERT_EQ(figure(DFRAME_LARGEST), largestGap());
        }
        ASSERT_EQ(figure(DFRAME_TOTALUSED | DFRAME_FLAG_SYSHEAP), usable == 0 || local < GetParam() ? local : 0);
        const std::size_t heapRecords = usable != 0 ? 2 + blocks(true).size() + free.size() : 0;
        ASSERT_EQ(blocksOut(), outBefore + static_cast<int64_t>(live.size() + blocks(false).size() + heapRecords) +
                                   (cache.size != 0 ? 1 : 0));
    }
    void step() {
        const auto dice = random() % 16;
        if (live.size() < 3 || (dice < 2 && live.size() < 20)) {
            Model model;
            doAlloc(model);
            live.push_back(std::move(model));
        } else if (dice == 2 && live.size() < 20) {
            doCustom();
        } else if (dice < 6) {
            doFree(any());
        } else {
            live.reserve(live.size() + 1); // what is made goes behind, and moves nothing
            Model &model = live[any()];
            Model &other = live[any()];
            const bool makes = live.size() < 20 && chance(2);
            const bool pair = &model != &other && alone(other);
            switch (dice) {
            case 6: // a buffer of no length isn't replaced
                alone(model) && (!model.block || model.length != 0) ? doAlloc(model) : doMove(model);
                break;
            case 7: doMove(model); break;
            case 8: doFix(model); break;
            case 9: ++model.references; break;
            case 10: unshared(model) && alone(model) ? doResize(model) : doFix(model); break;
            case 11:
            case 12:
                if (makes || (&model != &other && other.references == 1)) { doCopy(model, makes ? nullptr : &other); }
                break;
            case 13:
                if (usable == 0 && model.own) { return; } // would make a pool
                if (makes || pair) { doDup(model, makes ? nullptr : &other); }
                break;
            default:
                if (unshared(model) && (makes || (pair && unshared(other)))) {
                    doSwap(model, makes ? nullptr : &other);
                }
            }
            if (dice == 9 && (model.own || !model.block)) {
                --model.references;
            } else if (dice == 9) {
                ASSERT_EQ(run(DFRAME_ADDREF, model.frame), 0u);
            }
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
    for (int number = 0; number < (kSanitized ? 4000 : 20000); ++number) {
        SCOPED_TRACE(number);
        step();
        log.take();
        for (const Model &model : live) { check(model); }
        checkFigures();
        if (HasFatalFailure()) {
            live.clear();
            return;
        }
    }
    while (!live.empty()) { doFree(0); }
    checkFigures();
}
// No pool; one that holds a handful of frames, so that it is full most of the time; one that holds nearly all.
INSTANTIATE_TEST_SUITE_P(Pools, CommandModel, testing::Values(0, 400000, 9000000));

} // namespace
