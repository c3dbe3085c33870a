// Every command of frames and pool at random beside a model: what lies where, what stands in it, who counts on it,
// and the figures; frames live on across all states of the pool.
#include "frame_fixture.h"

#include "frames/frames.h"
#include "local/local_heap.h"
#include "trace/trace.h"

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <set>

using namespace brenvole;

namespace {

// own: the caller's, of a custom frame; gone: in a pool whose heap has ended, known to nobody
enum class Kind { pool, local, own, gone };

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
    // Where a new block has come to lie, told by its frame.
    void settle() const {
        if (block && block->start == nullptr) { block->start = frame->lpData - moved; }
        if (block && block->owner == nullptr) { block->owner = frame; }
    }
};

constexpr uint64_t kDefaultPool = 524255000;
constexpr std::size_t kArena = std::size_t{1} << 38;

struct FrameModel : FrameTest {
    FakeSystem system; // grants parts of the arena, none twice
    void *const arena = systemReserve(kArena);
    std::mt19937 random{11};
    std::vector<Model> live;
    uint32_t cached = 0;
    bool pool = false;
    uint64_t size = kDefaultPool;  // of the pool, or of the next one
    uint64_t base = 0, usable = 0; // of the heap; 0: none
    Texts told;                    // of the need for a pool
    ::DFHEAP *forgotten = nullptr; // a heap that had lost its pool when the next one was made

    FrameModel() {
        system.available = 40000000;
        system.backed = true;
        blocksAside = &traceActiveCount; // the trace changes nothing of what is checked here
        system.nextBase = reinterpret_cast<uint64_t>(arena);
    }
    ~FrameModel() override {
        run(DFRAME_CLOSE);
        log.take();
        systemRelease(arena, kArena);
        phys_allocs = 0; // a heap's end doesn't count its leaks
    }
    uint32_t upTo(uint32_t most) { return static_cast<uint32_t>(random()) % (most + 1); }
    bool chance(unsigned of) { return random() % of == 0; }

    // What there is from here on.
    void begin(bool granted) {
        for (Model &model : live) {
            if (model.is(Kind::pool)) { model.block->kind = Kind::gone; }
        }
        pool = granted;
        base = system.nextBase;
        usable = granted ? size / 4096 * 4096 : 0; // a region below a granule is too small for a heap
    }
    // A frame needs the pool: true if there is a heap that serves it.
    bool need() {
        if (!pool && system.largest != 0 && size != 0) {
            forgotten = mainHeap;
            begin(true);
            if (usable == 0) { told = {"WARNING(dfmem): Unable to create main heap\n"}; }
        } else if (!pool) {
            while (size > 0x1000000) { size -= 32768; }
            told = {"WARNING(dfmem): Unable to allocate main memory pool\n"};
        }
        return pool && usable != 0;
    }
    bool fitsPool(uint32_t request) const { return (request + 4095) / 4096 * 4096 <= largestGap(); }
    // A new block for a request: in the pool if it is asked first and has room, else local with the floor as its
    // least size; without a floor in no other heap. What the frame is told of its length goes back.
    std::shared_ptr<Block> place(uint32_t &request, bool poolFirst, uint32_t floor) {
        const bool asked = poolFirst && need();
        const bool inPool = asked && fitsPool(request);
        if (floor == 0 && (request == 0 || asked != inPool)) { return nullptr; }
        if (asked) { request = (request + 4095) / 4096 * 4096; }
        return std::make_shared<Block>(cached, inPool ? Kind::pool : Kind::local,
                                       inPool ? request : std::max(request, floor));
    }
    void doAlloc(Model &model) {
        const uint32_t side = chance(3) ? DFRAME_FLAG_SYSHEAP : 0;
        static constexpr uint32_t kLargest[] = {100, 5000, 40000, 900000};
        const uint32_t wanted = 1 + upTo(kLargest[chance(6) ? 3 : random() % 3]);
        const bool custom = model.is(Kind::own); // the caller's buffer is forgotten, the flag stays
        model.block = nullptr;                   // replaced data goes before the new one is made
        model.moved = 0;
        model.length = static_cast<uint32_t>(wanted * 1.4);
        model.block = place(model.length, side == 0 && usable != 0, 4096);
        const uint32_t record = 1 + upTo(9000); // the low half counts
        ASSERT_EQ(alloc(model.frame, wanted, side, record | uint64_t{1} << 32), 0u);
        ASSERT_EQ(model.frame->dwSize, record);
        ASSERT_EQ(log.take(), std::exchange(told, {}));
        ASSERT_EQ((model.frame->dwFlags & DFRAME_FLAG_CUSTOM) != 0, custom);
        model.frame->dwFlags &= ~DFRAME_FLAG_CUSTOM;
        model.settle();
        write(model, chance(8) ? model.length : upTo(model.length));
    }
    void doCustom(Model &model) {
        ASSERT_EQ(alloc(model.frame, kNoData), 0u);
        model.length = chance(2) ? 19199 + upTo(1) : 1 + upTo(9000); // a full one of 19200 is no sound
        model.block = std::make_shared<Block>(cached, Kind::own, model.length);
        give(model.frame, model.block->start, model.length, 0, DFRAME_FLAG_CUSTOM);
        write(model, chance(2) ? model.length : upTo(model.length));
    }
    // The caller fills a part of the buffer.
    void write(Model &model, uint32_t used) {
        model.used = model.frame->dwBytesUsed = used;
        std::generate_n(+model.frame->lpData, used, [&] { return static_cast<uint8_t>(random()); });
        model.block->put(model.moved, model.frame->lpData, used);
    }
    void doFree(std::size_t at) {
        Model &model = live[at];
        if (model.is(Kind::own)) { give(model.frame, nullptr, 0, 0, 0); }
        PDFRAME handle = model.frame;
        ASSERT_EQ(free(handle), model.is(Kind::gone) ? 0xFFFFFFFEu : 0u);
        ASSERT_EQ(log.take().size(), model.is(Kind::gone) ? 2u : 0u);
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
            target.block = place(length, inPool, 0);
            target.moved = 0;
            target.length = length;
        }
        const bool fails = !target.block && source.length != 0;
        runOn(DFRAME_COPY, source, target, 0, fails ? kWidenedOutOfMemory : 0);
        if (fails) { return; }
        target.used = source.length != 0 ? source.used : 0;
        if (!target.block) { target.moved = 0; }
        if (target.used == 0) { return target.settle(); }
        if (made && (target.is(Kind::pool) || moved <= kLocalReach)) { // else it couldn't be found so far inside
            target.block->put(0, source.block->bytes.data(), moved);
            target.moved = moved;
            target.length -= moved;
        }
        target.settle();
        target.block->put(target.moved, source.block->bytes.data() + source.moved, source.used);
    }
    void doDup(Model &source, Model &target) {
        const bool custom = source.is(Kind::own);
        if (&source == &target || (custom && target.frame != nullptr)) {
            return runOn(DFRAME_DUP_FREE, source, target, 0, DFMEM_E_INVALIDARG);
        }
        target.length = source.length;
        target.used = source.used;
        target.moved = source.moved;
        target.block = custom ? place(target.length, true, 4096) : source.block;
        runOn(DFRAME_DUP_FREE, source, target, 0, 0);
        target.settle();
        if (!custom) { return; }
        ASSERT_EQ(log.take(), std::exchange(told, {}));
        target.block->put(0, source.block->bytes.data(), source.used);
    }
    void doSwap(Model &source, Model &target) {
        const bool made = target.frame == nullptr, inPool = source.is(Kind::pool);
        if (target.block && inPool != target.is(Kind::pool) && target.used == 0 && source.used > target.length) {
            return; // copied as far as it fits, and told to be used to its end: an overwrite from here on
        }
        if (source.block && target.block && chance(2)) { // to the limit of what can be exchanged, or just below
            const auto &[full, other] = chance(2) ? std::tie(source, target) : std::tie(target, source);
            write(full, std::min(full.length, std::max(other.length, 1u) - upTo(1)));
        }
        const int64_t asked = chance(3) ? -1 - static_cast<int64_t>(random()) : upTo(50000);
        const auto least = static_cast<uint32_t>(std::max<int64_t>(asked, 0));
        if (made) {
            target.length = std::max(least, source.length);
            target.block = target.length != 0 ? place(target.length, inPool, 4096) : nullptr;
        } else if (!target.block) {
            target.length = std::max(least, target.length);
            target.block = place(target.length, inPool, 0);
        }
        const bool fails = !made && !target.block;
        const bool exchanges = source.block && target.block;
        const bool oneHeap = exchanges && source.block->kind == target.block->kind;
        const bool oneWay = made || target.used == 0;
        const bool refused =
            exchanges && !oneHeap && !oneWay && (source.used >= target.length || target.used >= source.length);
        runOn(DFRAME_SWAP, source, target, asked, fails ? DFMEM_E_OUTOFMEMORY : refused ? DFMEM_E_FAILED : 0);
        if (refused) { ASSERT_EQ(log.take(), Texts{"NoSwap DFrame LHEAP(0xE8108013)"}); }
        if (fails) { return; }
        if (oneHeap) {
            std::swap(source.block, target.block);
            std::swap(source.moved, target.moved);
            std::swap(source.length, target.length);
            source.block->owner = source.frame;
            target.block->owner = target.frame;
        } else if (exchanges && !refused) {
            const std::vector<uint8_t> held = source.block->bytes;
            if (!oneWay) { source.block->put(source.moved, target.block->bytes.data() + target.moved, target.used); }
            target.block->put(target.moved, held.data() + source.moved, source.used);
        }
        if (exchanges && !refused) { std::swap(source.used, target.used); }
        source.settle();
        target.settle();
    }
    void doResize(Model &model) {
        const uint32_t wanted = chance(3) ? 0 : chance(8) ? model.length : upTo(60000);
        Model after = model;
        const bool inPool = model.is(Kind::pool); // there the pointer has to lie in the block still
        uint32_t request = wanted + model.moved;
        if (inPool && wanted == 0 && model.moved != 0 && model.moved % 4096 == 0) { ++request; }
        const bool works = model.block && !model.is(Kind::gone) && wanted != model.length;
        if (works) { after.block = place(request, inPool, 0); }
        const bool fails = works && !after.block && request != 0;
        const uint64_t result = run(DFRAME_RESIZE, model.frame, wanted);
        ASSERT_EQ(result, fails ? DFMEM_E_OUTOFMEMORY : works || wanted == model.length ? 0 : kNowhere);
        if (!works || fails) { return; }
        after.length = wanted;
        after.used = std::min(model.used, wanted);
        after.settle();
        if (after.block) { after.block->put(0, model.block->bytes.data(), model.moved + after.used); }
        model = std::move(after);
    }
    void doMove(Model &model) {
        const uint32_t most = model.is(Kind::pool) ? UINT32_MAX : model.moved > 150000 ? 0 : 60000;
        if (!model.block || model.is(Kind::own) || model.length == 0) { return; }
        uint32_t by = upTo(std::min({model.used, model.length - 1, most}));
        if (chance(2)) { by = by / 4096 * 4096; }
        model.frame->lpData += by;
        model.moved += by;
        model.frame->dwBufferLength = model.length -= by;
        model.frame->dwBytesUsed = model.used -= by;
    }
    void doAddRef(Model &model) {
        ASSERT_EQ(addRef(model.frame), 0u);
        ++model.references;
    }
    void doFix(Model &model) {
        const uint64_t result = run(DFRAME_FIXALLOC, model.frame);
        ASSERT_EQ(result, model.is(Kind::own) ? DFMEM_E_INVALIDARG : model.is(Kind::gone) ? kNowhere : 0);
        if (result == 0) { model.moved = 0; }
    }
    bool readable(const Model &model) const { return model.is(Kind::pool) ? pool : !model.is(Kind::gone); }
    void check(const Model &model) {
        PDFRAME frame = model.frame;
        ASSERT_EQ(countOf(frame), model.references);
        ASSERT_EQ(frame->dwBufferLength, model.length);
        ASSERT_EQ(frame->dwBytesUsed, model.used);
        ASSERT_EQ((frame->dwFlags & DFRAME_FLAG_CUSTOM) != 0, model.is(Kind::own));
        ASSERT_EQ(run(DFRAME_ISLOCAL, frame), model.is(Kind::local) ? 1u : 0u);
        ASSERT_EQ(run(DFRAME_ISBRENVOLE, frame), model.is(Kind::pool) ? 1u : 0u);
        ASSERT_EQ(frame->lpData != nullptr, model.block != nullptr);
        if (!model.block) { return; }
        const Block &block = *model.block;
        ASSERT_EQ(frame->lpData, block.start + model.moved);
        ASSERT_TRUE(!readable(model) || std::equal(block.bytes.begin(), block.bytes.end(), block.start));
        const auto start = reinterpret_cast<uintptr_t>(block.start);
        const uint64_t found[] = {model.moved, start, DFMEM_E_INVALIDARG, kNowhere};
        ASSERT_EQ(run(DFRAME_FINDALLOC, frame), found[static_cast<int>(block.kind)]);
        if (model.is(Kind::local)) {
            const auto *const descriptor = reinterpret_cast<const PHALLOC *>(start - 128);
            ASSERT_EQ(descriptor->pOwner, reinterpret_cast<uintptr_t>(block.owner));
            uint32_t count = 0;
            for (const Model &m : live) { count += m.block == model.block ? m.references : 0; }
            ASSERT_EQ(descriptor->lRefCount, static_cast<int32_t>(count));
        }
        ASSERT_EQ(start % (model.is(Kind::own) ? 1 : model.is(Kind::local) ? 16384 : 4096), 0u);
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
    std::multiset<uint64_t> gaps() const {
        std::multiset<uint64_t> free;
        uint64_t from = base;
        for (const auto &[start, length] : blocks(Kind::pool)) {
            if (start != from) { free.insert(start - from); }
            from = start + length;
        }
        if (from != base + usable) { free.insert(base + usable - from); }
        return free;
    }
    uint64_t largestGap() const {
        const std::multiset<uint64_t> free = gaps();
        return free.empty() ? 0 : *free.rbegin();
    }
    void checkFigures() {
        const std::multiset<uint64_t> free = gaps();
        const uint64_t available = std::accumulate(free.begin(), free.end(), uint64_t{0});
        const auto locals = blocks(Kind::local);
        uint64_t local = cached;
        for (const auto &[start, length] : locals) { local += length; }
        const uint64_t localFree = size - std::min(size, local);
        for (const uint32_t side : {0u, DFRAME_FLAG_SYSHEAP}) {
            const bool ofHeap = side == 0 && usable != 0;
            const auto expect = [&](uint32_t command, uint64_t localFigure, uint64_t figure) {
                uint64_t word = 7;
                const uint64_t result = DFrameMem(command | side, 0, 0, reinterpret_cast<PDFRAME *>(&word));
                ASSERT_EQ(result, ofHeap ? figure : localFigure);
                ASSERT_EQ(word, ofHeap && command != DFRAME_TOTAL ? figure : 7);
                ASSERT_EQ(run(command | side), result);
            };
            expect(DFRAME_TOTAL, localFree, size);
            expect(DFRAME_TOTALAVAIL, localFree, available);
            expect(DFRAME_TOTALUSED, local < size ? local : 0, usable - available);
            expect(DFRAME_LARGEST, localFree, largestGap());
            ASSERT_TRUE(run(DFRAME_GRANULARITY | side) == 4096 && run(DFRAME_SMALLEST | side) == 8192);
        }
        ASSERT_EQ(system.regions.size(), pool ? 1u : 0u);
        const std::size_t records = usable != 0 ? 2 + blocks(Kind::pool).size() + free.size() : 0;
        ASSERT_EQ(blocksOut(),
                  outBefore + static_cast<int64_t>(live.size() + locals.size() + records + (cached != 0 ? 1 : 0)));
    }
    void doReset() {
        static constexpr uint64_t kWishes[] = {1, 50000, 400000, 9000001, 0, UINT64_MAX};
        const uint64_t wish = kWishes[random() % std::size(kWishes)];
        const bool enough = pool && wish != 0 && static_cast<int64_t>(wish) <= static_cast<int64_t>(size);
        const bool inUse = usable != 0 && !enough && largestGap() != usable;
        if (!inUse && !(enough && usable != 0)) {
            size = system.largest != 0 ? std::min(wish, system.available / 10 * 8) : 0;
            begin(size != 0);
        }
        const uint64_t result = run(DFRAME_RESET, static_cast<int64_t>(wish));
        ASSERT_EQ(result, inUse ? DFMEM_E_POINTER : pool ? 0 : kWidenedOutOfMemory);
        ASSERT_EQ(inUse, log.take() == Texts{"Brenvole in use, no re-alloc(0xE8108005)"});
    }
    // 0: the pool is closed; 1: the local side; 2: the library leaves, and the size stays as it is.
    void doEnd(uint32_t way) {
        if (way == 2) { // what DllMain does, but for the trace's end
            mainPoolDetach();
            LHEAP_DropCache();
        } else {
            run(DFRAME_CLOSE | way * DFRAME_FLAG_SYSHEAP);
        }
        const std::string which = way == 0 ? "system" : "NON-system";
        ASSERT_TRUE(way == 2 || log.take()[0] == "STATUS(dfmem): dfmem:  Closing " + which + " heap\n");
        size = way == 2 ? size : kDefaultPool;
        cached = 0;
        pool = false;
        if (way != 1) { begin(false); }
    }
    void changePool() {
        switch (const auto dice = static_cast<uint32_t>(random() % 8)) {
        case 3: system.largest = random() % 4 != 0 ? UINT64_MAX : 0; break;
        case 4: ASSERT_EQ(run(DFRAME_RESET | DFRAME_FLAG_SYSHEAP, static_cast<int64_t>(random())), 0u); break;
        default: dice < 3 ? doEnd(dice) : doReset();
        }
        // What has been given back can't be touched any more.
        const uint64_t gone = (pool ? base : system.nextBase) - reinterpret_cast<uint64_t>(arena);
        if (gone != 0) { systemProtect(arena, gone, Access::none); }
    }
    // A command of two frames, on a target that is there or on one that it makes.
    void pairStep(unsigned dice, Model &source, Model &target) {
        const bool made = target.frame == nullptr;
        if (!readable(source) || !readable(target)) { return; }
        if (dice < 12 && &source != &target && target.references == 1) { doCopy(source, target); }
        if (dice == 12 && (made || target.alone())) { doDup(source, target); }
        if (dice > 12 && source.unshared() && (made || (target.alone() && target.unshared()))) {
            doSwap(source, target);
        }
    }
    void step() {
        const auto dice = static_cast<unsigned>(random() % 15);
        const bool room = live.size() < 20;
        if (chance(50)) { return changePool(); }
        if (live.size() < 3 || (dice < 3 && room)) {
            Model &made = live.emplace_back();
            return dice == 2 ? doCustom(made) : doAlloc(made);
        }
        if (dice < 5) { return doFree(random() % live.size()); }
        Model &model = live[random() % live.size()];
        if (dice == 5 && model.references == 1 && model.length != 0) { return doAlloc(model); }
        if (dice == 6 && model.block && readable(model) && !model.is(Kind::own)) { return doAddRef(model); }
        if (dice == 7) { return doFix(model); }
        if (dice == 8 && model.alone() && model.unshared() && (pool || !model.is(Kind::pool))) {
            return doResize(model);
        }
        if (dice < 10) { return doMove(model); }
        Model made;
        pairStep(dice, model, room && chance(2) ? made : live[random() % live.size()]);
        if (made.frame != nullptr) { live.push_back(std::move(made)); }
        std::erase_if(live, [](const Model &m) { return m.frame == nullptr; });
    }
};

TEST_F(FrameModel, RandomCommands) {
    std::map<std::pair<bool, bool>, int> seen;
    for (int number = 0; number < (kSanitized || systemIsSlow ? 4000 : 30000) && !HasFatalFailure(); ++number) {
        SCOPED_TRACE(number);
        step();
        if (forgotten != nullptr) { DFHEAP_Destroy(std::exchange(forgotten, nullptr)); } // nobody else does
        log.take();
        for (const Model &model : live) { check(model); }
        checkFigures();
        ++seen[{pool, usable != 0}];
    }
    while (!live.empty() && !HasFatalFailure()) { doFree(0); }
    checkFigures();
    EXPECT_EQ(seen.size(), 4u);
}

} // namespace
