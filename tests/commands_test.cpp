// The commands that copy, share, exchange, resize and place data: header tables, refusals, and what fails on the way.
// Nothing here needs more than the exported names.
#include "frame_fixture.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <random>

static void (*onCopy)() = nullptr;
extern "C" void qxOSCopyMemorySafeFast(void *to, const void *from, uint32_t count, uint32_t capacity) {
    if (onCopy != nullptr) { onCopy(); }
    if (count != 0 && capacity != 0) { std::memmove(to, from, std::min(count, capacity)); }
}

namespace {

struct Commands : FrameTest {
    std::mt19937 random{3};

    // A frame whose header holds anything in all that belongs to the caller, with a valid tail.
    PDFRAME filled(int64_t size, uint32_t side) {
        PDFRAME frame = nullptr;
        EXPECT_EQ(alloc(frame, size, side), 0u);
        const DFRAME before = *frame;
        auto *const bytes = reinterpret_cast<uint8_t *>(frame);
        std::generate_n(bytes, sizeof *frame, [&] { return static_cast<uint8_t>(random()); });
        const auto used = 1 + static_cast<uint32_t>(random() % 1000);
        const uint32_t flags = (frame->dwFlags & ~DFRAME_FLAG_CUSTOM) | DFRAME_FLAG_TAIL;
        give(frame, before.lpData, before.dwBufferLength, used, flags);
        frame->dwSize = before.dwSize;
        frame->dwTailLength = 1 + static_cast<uint32_t>(random() % 1024);
        return frame;
    }
};

// ---- header tables ------------------------------------------------------------------------------------------------

void checkHeader(std::size_t column, const DFRAME *after, const DFRAME &own, const DFRAME &other) {
    for (std::istringstream &field : rowsOf("header_fields.txt")) {
        std::string name, rules;
        std::size_t offset = 0, size = 0;
        field >> name >> offset >> size >> rules;
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
        case 'n': set(other.dwFlags & ~DFRAME_FLAG_CUSTOM); break;
        case '-': continue;
        }
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), at(after))) << name << " " << column;
    }
}

TEST_F(Commands, EachFieldOfTheHeader) {
    makePool(1000000);
    DFRAME fresh = {};
    fresh.dwFlags = DFRAME_FLAG_CREATED;
    for (const uint32_t side : {0u, DFRAME_FLAG_SYSHEAP}) {
        for (std::size_t column = 0; column < 9; ++column) {
            const bool made = column == 2 || column == 5 || column == 6;
            PDFRAME source = filled(5000, side), target = made ? nullptr : filled(6000, side);
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

// A record made for a copy has room for a valid tail, and the source isn't written to, not even for a moment.
TEST_F(Commands, RoomForTheTail) {
    makePool(1000000);
    static PDFRAME source;
    static DFRAME before;
    constexpr uint32_t kTails[][4] = {{1, 5, 1, 1}, {1, 5, 1024, 1024},    {1, 5, 0, 0}, {1, 5, 1025, 0},
                                      {1, 0, 9, 0}, {1, UINT32_MAX, 9, 0}, {0, 5, 9, 0}};
    for (uint32_t way = 0; way < 6 * std::size(kTails); ++way) {
        constexpr uint32_t kCommands[] = {DFRAME_COPY, DFRAME_DUP_FREE, DFRAME_SWAP};
        const auto &[flagged, tail, length, room] = kTails[way / 6];
        PDFRAME made = nullptr;
        ASSERT_EQ(alloc(source, 100000, way % 2 * DFRAME_FLAG_SYSHEAP), 0u);
        give(source, source->lpData + 50000, 50000, 1000, source->dwFlags | (flagged * DFRAME_FLAG_TAIL));
        source->lpTail = reinterpret_cast<void *>(uintptr_t{tail});
        source->dwTailLength = length;
        before = *source;
        if (way / 2 % 3 == 0) {
            onCopy = [] { EXPECT_EQ(std::memcmp(source, &before, sizeof before), 0); };
        }
        EXPECT_EQ(run(kCommands[way / 2 % 3], made, 0, &source), 0u);
        onCopy = nullptr;
        EXPECT_EQ(made->dwSize, DFRAME_SIZE + room) << way;
        EXPECT_EQ(free(source) | free(made), 0u);
    }
}

// ---- refusals -----------------------------------------------------------------------------------------------------

TEST_F(Commands, Refusals) {
    makePool(1000000);
    std::map<char, PDFRAME> frames;
    for (const char name : {'c', 'e', 'l', 'b', 'x'}) { ASSERT_EQ(alloc(frames[name], kNoData), 0u); }
    ASSERT_EQ(alloc(frames['p'], 1000, DFRAME_FLAG_SYSHEAP) | alloc(frames['a'], 5000), 0u);
    uint8_t *const pool = frames['a']->lpData;
    give(frames['a'], pool - 100000, 8192, 0, 0);
    give(frames['c'], pool, 40, 0, DFRAME_FLAG_CUSTOM);
    give(frames['l'], reinterpret_cast<uint8_t *>(0x7F123456789AB000), 50, 51, DFRAME_FLAG_CREATED);
    give(frames['b'], nullptr, 5, 5, DFRAME_FLAG_CUSTOM);
    give(frames['x'], nullptr, 0, 1, 0);
    for (std::istringstream &row : rowsOf("refusals.txt")) {
        SCOPED_TRACE(row.str());
        uint32_t command = 0;
        int64_t param1 = 0;
        char source = 0, target = 0;
        uint64_t result = 0;
        std::string expected, told;
        std::getline(row >> command >> param1 >> source >> target >> result, expected);
        std::vector<DFRAME> before;
        PDFRAME none = nullptr;
        const auto handle = [&](char name) { return name == '-' ? nullptr : name == '0' ? &none : &frames.at(name); };
        for (const auto &[name, frame] : frames) { before.push_back(*frame); }
        EXPECT_EQ(DFrameMem(command, param1, reinterpret_cast<uintptr_t>(handle(source)), handle(target)), result);
        for (const std::string &text : log.take()) { told += " " + text.substr(0, text.find('\n')); }
        EXPECT_EQ(told, expected);
        EXPECT_EQ(none, nullptr);
        for (auto at = before.begin(); const auto &[name, frame] : frames) {
            EXPECT_EQ(std::memcmp(frame, &*at++, sizeof(DFRAME)), 0) << name;
        }
    }
    PDFRAME lost = frames['l'];
    EXPECT_EQ(countOf(lost), 2u); // raised, though its data couldn't be
    EXPECT_EQ(countOf(frames['a'])--, 2u);
    EXPECT_EQ(free(lost), 0xFFFFFFFEu);
    EXPECT_EQ(lost, nullptr);
    EXPECT_EQ(log.take(), (Texts{"DFrameFree memory overwrite 51 50",
                                 "heapHelpFreeDFrame: buffer overwrite detected (used=51, length=50)",
                                 "WARNING(dfmem): Unable to free DFrame allocation! \n", "NO-Free(0x789AB000-50) "}));
    EXPECT_EQ(run(DFRAME_FIXALLOC, frames['l']), kNowhere); // has reset the header all the same
    EXPECT_EQ(frames['l']->dwFlags, 0u);
    log.take();
    for (const char name : {'c', 'l', 'b', 'x'}) { give(frames[name], nullptr, 0, 0, 0); }
    give(frames['a'], pool, 8192, 0, 0);
    for (auto &[name, frame] : frames) { EXPECT_EQ(free(frame), 0u); }
}

// A frame that says to use more than it has is read no further than it goes.
TEST_F(Commands, OutOfReach) {
    makePool(1000000);
    PDFRAME made = nullptr, local = nullptr, pool = nullptr;
    ASSERT_EQ(alloc(local, 1000, DFRAME_FLAG_SYSHEAP) | alloc(pool, 700000), 0u);
    local->dwBytesUsed = 1401;
    const uint64_t asked = requests(); // the copy's first buffer is too small for what is said to be used
    EXPECT_EQ(run(DFRAME_COPY, made, 0, &local), 0u);
    EXPECT_EQ(requests() - asked, 3u);
    EXPECT_EQ(log.take(), Texts{"Warning: DFrameCopy memory overwrite (src=1401, dst=1400) "});
    EXPECT_EQ(made->dwBytesUsed, 1401u);
    local->dwBytesUsed = 0x40000000;
    EXPECT_EQ(run(DFRAME_RESIZE, local, 0x20000000), 0u);
    local->dwBytesUsed = 0x40000000;
    EXPECT_EQ(run(DFRAME_SWAP, pool, 0, &local), 0u); // one way, as far as it goes
    // The full pool leaves a copy to the local heap, and there no pointer so far inside would be found.
    give(pool, pool->lpData + 300000, 600000, 1000, 0);
    EXPECT_EQ(free(made), 0u);
    EXPECT_EQ(run(DFRAME_COPY, made, 0, &pool), 0u);
    EXPECT_EQ(free(made) | free(local) | free(pool), 0u);
    // Nor is the next block of the pool, for a pointer that was moved inside its own.
    ASSERT_EQ(alloc(pool, 100000) | alloc(made, 100000) | alloc(local, 300000, DFRAME_FLAG_SYSHEAP), 0u);
    const auto size = static_cast<uint32_t>(made->lpData - pool->lpData);
    std::memset(pool->lpData, 1, size);
    std::memset(made->lpData, 2, size);
    give(pool, pool->lpData + 5000, 9, 0, 0);
    for (PDFRAME *const target : {&local, &pool}) {
        pool->dwBytesUsed = size;
        EXPECT_EQ(run(target == &local ? DFRAME_SWAP : DFRAME_RESIZE, *target, 300000, &pool), 0u);
        EXPECT_EQ((*target)->lpData[size - 5001], 1);
        EXPECT_EQ(std::count((*target)->lpData, (*target)->lpData + size, 2), 0);
    }
    EXPECT_EQ(free(pool) | free(made) | free(local), 0u);
    log.take();
}

// A local pointer beyond its own block, but near enough for the block to be found: nothing is read there.
TEST_F(Commands, BeyondTheBlock) {
    makePool(1000000);
    PDFRAME source = nullptr, made = nullptr, pool = nullptr;
    ASSERT_EQ(alloc(source, 5000, DFRAME_FLAG_SYSHEAP) | alloc(pool, 5000), 0u);
    uint8_t *const start = source->lpData;
    pool->dwBytesUsed = 10;
    for (const uint32_t offset : {7001u, 8191u}) { // the block has 7000 bytes
        give(source, start + offset, 2000, 1000, 0);
        EXPECT_EQ(run(DFRAME_COPY, made, 0, &source), 0u);
        EXPECT_TRUE(made->dwBytesUsed == 0 && made->dwBufferLength == 2000);
        EXPECT_EQ(run(DFRAME_FINDALLOC, made), reinterpret_cast<uint64_t>(made->lpData));
        EXPECT_EQ(run(DFRAME_RESIZE, source, 9000), kNowhere);
        EXPECT_EQ(run(DFRAME_SWAP, pool, 0, &source), DFMEM_E_FAILED);
        EXPECT_TRUE(source->lpData == start + offset && source->dwBufferLength == 2000);
        EXPECT_EQ(free(made), 0u);
    }
    give(source, start, 7000, 0, 0);
    EXPECT_EQ(free(source) | free(pool), 0u);
    log.take();
}

// What a frame in no block says to use beyond its length is copied as far as it can be read; of a block, no more than
// there is.
TEST_F(Commands, BytesBeyondTheLength) {
    makePool(1000000);
    constexpr std::size_t kPages = 1 << 16;
    auto *const pages = static_cast<uint8_t *>(systemReserve(2 * kPages));
    systemProtect(pages, kPages, Access::write);
    std::fill_n(pages, kPages, uint8_t{0x77});
    PDFRAME own = nullptr, made = nullptr, other = nullptr;
    ASSERT_EQ(alloc(own, kNoData), 0u);
    const auto sevens = [](const PDFRAME frame, std::size_t count) {
        return std::count(frame->lpData, frame->lpData + count, 0x77) == static_cast<std::ptrdiff_t>(count);
    };
    for (const uint32_t there : {3000u, 500u}) { // bytes that can be read; the frame says 1000, and to use 2000
        give(own, pages + kPages - there, 1000, 2000, DFRAME_FLAG_CUSTOM);
        if (there < 1000) { own->dwBufferLength = 100; }
        for (const uint32_t flag : {DFRAME_FLAG_CUSTOM, 0u}) { // the caller's, or one that no heap knows
            own->dwFlags = flag;
            EXPECT_EQ(run(DFRAME_DUP_FREE, made, 0, &own), 0u);
            const uint32_t room = made->dwBufferLength; // of a granule: more than the length
            EXPECT_TRUE(sevens(made, std::min({there, room, 2000u}))) << there;
            EXPECT_EQ(free(made), 0u);
        }
        ASSERT_EQ(alloc(other, 5000), 0u);
        EXPECT_EQ(run(DFRAME_SWAP, other, 0, &own), 0u); // one way
        EXPECT_TRUE(sevens(other, std::min(there, 2000u))) << there;
        EXPECT_EQ(free(other), 0u);
    }
    give(own, nullptr, 0, 0, 0);
    EXPECT_EQ(free(own), 0u);
    systemRelease(pages, 2 * kPages);
    log.take();
}

} // namespace
