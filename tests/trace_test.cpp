// The trace: when it runs, where its file lies, and what stands in it, byte for byte. It ends for good with its
// process, so each case has a process of its own.
#include "frames/frames.h"
#include "local/local_block.h"
#include "local/local_heap.h"
#include "trace_fixture.h"

using namespace brenvole;

namespace {

// ---- every operation's rows -------------------------------------------------------------------------------------

// Blocks from a place that is the same in each run, none given out twice, so that a file can be told in advance. One
// size or one block can be made to throw.
constexpr uintptr_t kArena = 0x20000000; // where every sanitizer leaves a program its memory
constexpr std::size_t kArenaBytes = 32 << 20;
uintptr_t arenaNext = kArena;
uint32_t throwAtSize = 0;
const void *throwAtBlock = nullptr;

void useArena() {
    void *const arena = systemReserve(kArenaBytes, kArena);
    if (arena == nullptr) { std::_Exit(2); }
    systemProtect(arena, kArenaBytes, Access::write);
    replaceAlloc = [](uint32_t size) -> void * {
        if (size == throwAtSize) { throw 1; }
        return reinterpret_cast<void *>(std::exchange(arenaNext, (arenaNext + size + 4095) / 4096 * 4096));
    };
    replaceFree = [](void *block) {
        if (block == throwAtBlock) { throw 1; }
    };
}

// A command whose call site is a line of its own.
uint32_t callLine = 0;
uint64_t call(uint32_t command, PDFRAME *frame = nullptr, int64_t param1 = 0, PDFRAME *source = nullptr) {
    const uintptr_t param2 = source != nullptr ? reinterpret_cast<uintptr_t>(source)
                                               : uintptr_t{(command & 0xFF) == DFRAME_ALLOC ? 8500u : 0u};
    return DFrameMemTrace(command, param1, param2, frame, "area", ++callLine);
}

PHALLOC *localOf(const DFRAME *frame) { return LHEAP_Find(frameData(frame)); }

// Frames that must lie where they do in every run: their addresses are told by `param2`.
PDFRAME *const frames = reinterpret_cast<PDFRAME *>(kArena);

void localEvents() {
    constexpr uint32_t kLocal = DFRAME_FLAG_SYSHEAP;
    PDFRAME &big = frames[0], &small = frames[1], &shared = frames[2], &other = frames[3];
    call(DFRAME_DUMP | kLocal);
    call(DFRAME_ALLOC | kLocal, &big, 1000000);
    call(DFRAME_ADDREF, &big);
    shared = big;
    call(DFRAME_FREE, &shared);
    call(DFRAME_ALLOC | kLocal, &small, 5000);
    PHALLOC *const cached = localOf(big);
    call(DFRAME_FREE, &big); // into the cache
    LHEAP_Free(cached, "again", 1);
    call(DFRAME_DUP_FREE, &shared, 0, &small);
    call(DFRAME_FREE, &shared);
    call(DFRAME_ALLOC | kLocal, &other, 6000);
    call(DFRAME_SWAP, &other, 0, &small);
    PHALLOC *const descriptor = localOf(small);
    descriptor->dwGuard1 = 0;
    LHEAP_Free(descriptor, "guard", 1);
    descriptor->dwGuard1 = kLocalGuard1;
    descriptor->pSelf = nullptr;
    LHEAP_Free(descriptor, "self", 1);
    descriptor->pSelf = descriptor;
    call(DFRAME_FREE, &small);
    LHEAP_Alloc(5, nullptr, "null", 1);
    LHEAP_Alloc(0, other, "zero", 1);
    LHEAP_Free(nullptr, "null", 2);
    throwAtBlock = reinterpret_cast<const void *>(localOf(other)->lpAddr);
    call(DFRAME_FREE, &other);
    throwAtSize = 24704; // a local block of the least size
    call(DFRAME_ALLOC | kLocal, &other, 100);
    throwAtSize = 0;
    call(DFRAME_CLOSE | kLocal); // the pool that the other attempt has made
    LHEAP_Alloc(9, reinterpret_cast<PDFRAME>(16), "unwritable", 1);
}

void failures() {
    PDFRAME &frame = frames[0], &shared = frames[1];
    failNth(1, true);
    call(DFRAME_ALLOC, &frame, 100);
    failNth(2); // no entry for the header
    call(DFRAME_ALLOC, &frame, 100);
    call(DFRAME_FREE, &frame);
    failNth(3, true); // no data
    call(DFRAME_ALLOC | DFRAME_FLAG_SYSHEAP, &frame, 100);
    failNth(0);
    call(DFRAME_ALLOC, &frame, 100);
    failNth(1);
    call(DFRAME_DUP_FREE, &shared, 0, &frame);
    frame->dwBytesUsed = 9999;
    frame->lpData = reinterpret_cast<uint8_t *>(16);
    call(DFRAME_FREE, &frame);
    heapHelpFreeDFrame(&frame, "gone", 1);
    freePDFRAME(nullptr, "gone", 2);
}

void poolEvents() {
    PDFRAME &one = frames[0], &two = frames[1], &three = frames[2];
    call(DFRAME_RESET, nullptr, 1 << 20);
    call(DFRAME_ALLOC, &one, 10000);
    call(DFRAME_ALLOC, &two, 10000);
    call(DFRAME_ADDREF, &one);
    call(DFRAME_DUP_FREE, &three, 0, &one);
    one->lpData += 100;
    call(DFRAME_FINDALLOC, &one);
    call(DFRAME_FIXALLOC, &one);
    call(DFRAME_SWAP, &one, 0, &two);
    call(DFRAME_RESIZE, &two, 20000);
    call(DFRAME_ISBRENVOLE, &two);
    call(DFRAME_LARGEST, &three);
    three = one;
    call(DFRAME_FREE, &one);
    call(DFRAME_FREE, &three);
    call(DFRAME_DUMP);
    call(DFRAME_CLOSE); // with the block of `two`
    call(0x8000000B, nullptr, -1);
    call(0x107);
}

void heapProblems() {
    const uint64_t base = uint64_t{1} << 40;
    constexpr uint64_t kBytes = 4097 * 4096; // a heap that debug builds don't check at each step
    uint64_t size = 5;
    uint64_t nowhere = base + kBytes;
    const uint64_t null = 0;
    uint64_t owner = 0xA0;
    DFHEAP *const heap = DFHEAP_Create(0, base, kBytes, 4096, 8192);
    const auto alloc = [&](uint64_t bytes) {
        size = bytes;
        return DFHEAP_Alloc(heap, &size, ++owner, nullptr);
    };
    DFHEAP_Alloc(nullptr, &size, owner, nullptr);
    alloc(0);
    alloc(UINT64_MAX);
    alloc(kBytes + 1);
    const uint64_t all = alloc(kBytes);
    alloc(1);
    DFHEAP_Free(heap, all, nullptr);
    failNth(1);
    alloc(4096);
    throwAtSize = sizeof(PHALLOC);
    alloc(4096);
    throwAtSize = 0;
    const uint64_t low = alloc(12288), high = alloc(4096);
    DFHEAP_AddRef(heap, 0, nullptr);
    DFHEAP_AddRef(heap, nowhere, nullptr);
    DFHEAP_FindAlloc(heap, nullptr);
    DFHEAP_FindAlloc(heap, &null);
    DFHEAP_FindAlloc(heap, &nowhere);
    DFHEAP_FixAlloc(nullptr, &nowhere);
    DFHEAP_FixAlloc(heap, &nowhere);
    DFHEAP_SwapRef(heap, 0, 0xB1, low, 0xB2);
    DFHEAP_SwapRef(heap, low, 0xB1, nowhere, 0xB2);
    PHALLOC *const record = _DFHEAP_FindAlloc(heap, low);
    record->lRefCount = 0;
    DFHEAP_AddRef(heap, low, nullptr);
    DFHEAP_Free(heap, low, nullptr);
    record->lRefCount = 2;
    DFHEAP_FreeTrace(heap, low, nullptr, "free", 1);
    DFHEAP_Free(nullptr, low, nullptr);
    DFHEAP_Free(heap, 0, nullptr);
    DFHEAP_Free(heap, nowhere, nullptr);
    throwAtBlock = _DFHEAP_FindAlloc(heap, high);
    DFHEAP_Free(heap, high, nullptr);
    throwAtBlock = nullptr;
    const uint64_t above = alloc(12288); // behind `low`; then books that no heap has, so that sizes don't add up
    DFHEAP_Free(heap, low, nullptr);
    physRecord(d_ListTail(&heap->FreeList))->qwSize = UINT64_MAX - 5;
    DFHEAP_Free(heap, above, nullptr);
    const uint64_t again = alloc(12288);
    physRecord(d_ListHead(&heap->FreeList))->qwSize = UINT64_MAX - 5;
    DFHEAP_Free(heap, again, nullptr);
    alloc(4096);
    alloc(8192);
    DFHEAP_Destroy(heap);
}

TEST_F(TraceFile, EveryEvent) {
    inProcess([] {
        const FakeSystem system;
        useArena();
        arenaNext += 4096; // behind the frames
        localEvents();
        failures();
        poolEvents();
        heapProblems();
        DllMain(nullptr, 0, nullptr);
        call(DFRAME_TOTAL); // no row any more
    });
    std::string expected = contentOf(BRENVOLE_TEST_DATA "trace_events.csv");
    EXPECT_EQ(contentOf(file), expected.replace(expected.find("FILE"), 4, file));
}

TEST_F(TraceFile, SourcesInTheirOrder) {
    const struct {
        const char *first, *second, *content;
        int32_t on;
    } cases[] = {{"Off", nullptr, "", 0},
                 {"yellow", nullptr, "", 1},
                 {"tRuE", nullptr, "", 1},
                 {"no", "ON", "", 1},
                 {"", "0", "[Brenvole\\DFrameTrace]\nEnable=1\n", 1},
                 {nullptr, nullptr, "[Brenvole\\DFrameTrace]\nEnable=0\n[Brenvole]\nDFrameTrace=0x2\n", 1},
                 {nullptr, nullptr, "[qxOSCfg\\Brenvole]\nDFrameTrace=1\n", 1},
                 {nullptr, nullptr, "[qxOSCfg\\Brenvole]\nDFrameTrace=0\n", 0}};
    for (const auto &c : cases) {
        const Environment one("QXBRENVOLE_TRACE", c.first), two("BRENVOLE_DFRAME_TRACE", c.second);
        const Environment ini("QXUTIL_CONFIG", directory.write("store.ini", c.content).c_str());
        inProcess([&] { std::_Exit(TraceIsEnabled() == c.on ? 0 : 1); });
        EXPECT_EQ(std::remove(file.c_str()) == 0, c.on == 1);
    }
}

// A source that turns on is seen at the 4096th call; one that turns off, not at all; after the end, none is.
TEST_F(TraceFile, LateStartAndEnd) {
    systemSetVariable("QXBRENVOLE_TRACE", nullptr);
    inProcess([&] {
        int bad = TraceIsEnabled();
        systemSetVariable("QXBRENVOLE_TRACE", "1");
        for (int i = 1; i < 4096; ++i) { bad += TraceIsEnabled(); }
        for (int i = 1; i <= 10; ++i) {
            TraceProblem("off", nullptr, nullptr, 0, 0, 0, nullptr, 0, nullptr);
        } // starts it
        systemSetVariable("QXBRENVOLE_TRACE", nullptr);
        bad += TraceIsEnabled() != 1;
        TraceClose(nullptr);
        systemSetVariable("QXBRENVOLE_TRACE", "1");
        for (int i = 0; i < 9000; ++i) { bad += TraceIsEnabled(); }
        if (bad != 0) { std::_Exit(1); }
    });
    const std::string content = contentOf(file);
    const auto count = [&](const std::string &text) {
        int found = 0;
        for (std::size_t from = 0; (from = content.find(text, from)) != std::string::npos; ++from) { ++found; }
        return found;
    };
    EXPECT_EQ(count("\n\"problem\""), 10);
    EXPECT_EQ(count("\n\"summary\""), 9); // of the first eight, and of the end
    EXPECT_EQ(content.substr(content.rfind(',')), ",\"\"");
}

} // namespace
