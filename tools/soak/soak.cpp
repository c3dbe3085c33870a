// Random commands on several threads for as long as one likes, beside a model of each thread's own frames, of frames
// that all threads read, and of blocks in a heap that they share. Only exported functions are used.
#include "brenvole/dfheap.h"
#include "brenvole/dframe.h"
#include "util/qxutil.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kThreads = 4;
constexpr unsigned kSteps = 3000;      // of a thread in a round: some hundred milliseconds
constexpr std::size_t kFrames = 10;    // of a thread at most
constexpr std::size_t kCommon = 4;     // frames that all threads read
constexpr uint32_t kMost = 200000;     // bytes by which a pointer is moved; a local block isn't found from far beyond
constexpr uint32_t kStride = 16384;    // pointers move by multiples of it, and bytes are written just below them
constexpr uint64_t kPool = 128u << 20; // more bytes than all frames can take: it is never full
constexpr uint64_t kRegion = 16u << 20; // bytes of the heap that the threads share
constexpr uint64_t kPhysical = 0x70000; // its physical offset
constexpr uint32_t kGranule = 512;

// What a thread is at, for the report of a failure.
struct Doing {
    uint64_t seed, commands;
    unsigned thread, step, command;
};
thread_local Doing doing;
uint8_t *region; // of the shared heap

void report(const char *what, uint64_t got, uint64_t expected) {
    std::fprintf(stderr,
                 "soak: FAILED, seed %lu, thread %u, step %u, command %u of dframe.h: %s 0x%lX, expected 0x%lX\n",
                 doing.seed, doing.thread, doing.step, doing.command, what, got, expected);
}
void same(const char *what, uint64_t got, uint64_t expected) {
    if (got == expected) {
        return;
    }
    report(what, got, expected);
    std::_Exit(1); // the heaps may be damaged
}

// A fault that the library doesn't catch, or an abort, is reported and then takes its course.
struct sigaction beforeFault;
void onFault(int fault) {
    report("signal", static_cast<unsigned>(fault), 0);
    sigaction(SIGSEGV, &beforeFault, nullptr);
}

// A resize to 0 asks the heaps for 0 bytes. At the end of a round nothing is left in any.
void takeMessage(uint32_t, const char *message, void *) {
    constexpr std::string_view kExpected[] = {
        "Resizing AV Mem (MB) ",
        "AV Mem (actual alloc",
        "STATUS(dfmem): dfmem:  Closing system heap",
        "\nAllocList:",
        "\nFreeList: ",
        "\n(",
        "DFHEAP_Alloc called with zero size",
        "LHEAP_Alloc called with zero size",
        "Net DFrames Allocated in brenvole 0 (bytes = 0) phys heap allocations 0 local heap allocations 0"};
    const auto begins = [&](std::string_view text) { return std::string_view(message).starts_with(text); };
    same(message, std::any_of(std::begin(kExpected), std::end(kExpected), begins), 1);
}

uint64_t run(uint32_t command, PDFRAME *frame = nullptr, int64_t param1 = 0, uintptr_t param2 = 0) {
    doing.command = command & 0xFF;
    ++doing.commands;
    return DFrameMem(command, param1, param2, frame);
}

struct Random {
    std::mt19937_64 next;
    uint32_t upTo(uint64_t most) { return static_cast<uint32_t>(next() % std::max<uint64_t>(most + 1, 1)); }
    bool chance(unsigned of) { return next() % of == 0; }
    // Of a buffer: often near a multiple of the local heap's unit, or large enough for its cache.
    uint32_t size() {
        if (chance(3)) {
            return 1 + upTo(chance(2) ? 200 : 1500000);
        }
        return (1 + upTo(chance(4) ? 170 : 24)) * 8192 + 2 - upTo(4);
    }
};

// A buffer, and what is known to stand in it: of a long run the front and each 61st byte.
struct Block {
    uint8_t *start;
    bool inPool, common = false;                          // common: all threads read it
    std::vector<std::pair<uint64_t, uint8_t>> known = {}; // place and value

    void forget(uint64_t from, uint64_t count) {
        std::erase_if(known, [=](const auto &byte) { return byte.first - from < count; });
    }
    void write(uint64_t from, uint64_t count, Random &random) {
        forget(from, count);
        for (uint64_t i = 0; i < count; ++i) {
            start[from + i] = static_cast<uint8_t>(random.next());
            if (i < 32 || i % 61 == 0) {
                known.emplace_back(from + i, start[from + i]);
            }
        }
    }
    // The library has copied bytes here, maybe from this block itself.
    void copied(const Block source, uint64_t from, uint64_t count, uint64_t here) { // NOLINT(performance-*)
        forget(here, count);
        for (const auto &[at, value] : source.known) {
            if (at - from < count) {
                known.emplace_back(at - from + here, value);
            }
        }
    }
};

struct Frame {
    PDFRAME frame = nullptr;
    uint32_t references = 1, length = 0, used = 0, moved = 0; // moved: lpData inside its block
    std::shared_ptr<Block> block = nullptr;

    bool inPool() const { return block && block->inPool; }
    uint64_t does(uint32_t command, int64_t param1 = 0) const {
        PDFRAME handle = frame;
        return run(command, &handle, param1);
    }
    void add() {
        same("result", does(DFRAME_ADDREF), 0);
        ++references;
    }
    void drop() {
        same("result", does(DFRAME_FREE), 0);
        --references;
    }
    void takes(uint32_t command, const Frame &source, int64_t param1 = 0) {
        PDFRAME handle = source.frame;
        same("result", run(command, &frame, param1, reinterpret_cast<uintptr_t>(&handle)), 0);
    }
    void attach(bool pool) { block = std::make_shared<Block>(Block{frame->lpData - moved, pool}); }
    void check() const {
        const auto start = block ? reinterpret_cast<uintptr_t>(block->start) : 0;
        same("lpData", reinterpret_cast<uintptr_t>(frame->lpData), start + moved);
        same("dwBufferLength", frame->dwBufferLength, length);
        same("dwBytesUsed", frame->dwBytesUsed, used);
        same("result", does(DFRAME_FINDALLOC), inPool() ? moved : start);
        same("result", does(DFRAME_ISLOCAL), block && !inPool());
        same("result", does(DFRAME_ISBRENVOLE), inPool());
        for (std::size_t i = 0; block && i < block->known.size(); ++i) {
            same("byte of the data", block->start[block->known[i].first], block->known[i].second);
        }
    }
};

struct Round {
    uint64_t seed, pool; // bytes; 0: none
    DFHEAP *heap = nullptr;
    uintptr_t commonBlock = 0;
    std::vector<Frame> common = std::vector<Frame>(kCommon);
};

// A block in the shared heap, which is full of its key.
struct Taken {
    uint64_t size, owner;
    uint8_t key;
    int32_t references;
    uintptr_t addr;
    uint8_t *bytes() const { return reinterpret_cast<uint8_t *>(addr); }
};

struct Worker {
    Round &round;
    Random random;
    std::vector<Frame> frames = {};
    std::vector<Taken> taken = {};
    std::vector<Frame> common = round.common; // with this thread's references

    static uint32_t rounded(uint32_t length, bool pool) { return pool ? (length + 4095) / 4096 * 4096 : length; }
    void alloc(Frame &model) {
        const uint32_t side = random.chance(3) ? DFRAME_FLAG_SYSHEAP : 0;
        const bool pool = round.pool != 0 && side == 0;
        const auto wanted = std::max(1u, static_cast<uint32_t>(random.size() / 1.4));
        same("result", run(DFRAME_ALLOC | side, &model.frame, wanted, DFRAME_SIZE), 0);
        model.length = rounded(static_cast<uint32_t>(wanted * 1.4), pool);
        model.used = model.frame->dwBytesUsed = random.upTo(model.length);
        model.moved = 0;
        model.attach(pool);
    }
    // A few bytes anywhere in the buffer, also in front of lpData and beyond what is used; at times a long run.
    void write(Frame &model) {
        const uint64_t whole = uint64_t{model.moved} + model.length;
        if (!model.block || model.block->common || whole == 0) {
            return;
        }
        for (uint32_t i = random.upTo(7); i != 0; --i) {
            uint64_t from = random.upTo(whole - 1);
            if (!random.chance(4)) {
                from = (1 + from / kStride) * kStride - 1 - random.upTo(127);
            }
            from = std::min(from, whole - 1);
            const uint64_t count = 1 + random.upTo(random.chance(20) ? 100000 : random.chance(3) ? 20 : 0);
            model.block->write(from, std::min(count, whole - from), random);
        }
        model.used = model.frame->dwBytesUsed = random.chance(3) ? model.length : random.upTo(model.length);
    }
    void move(Frame &model) {
        uint32_t by = model.length == 0 ? 0 : random.upTo(std::min(model.length - 1, kMost - model.moved));
        if (random.chance(2)) {
            by = by / kStride * kStride;
        }
        model.moved += by;
        model.frame->lpData += by;
        model.frame->dwBufferLength = model.length -= by;
        model.frame->dwBytesUsed = model.used -= std::min(by, model.used);
    }
    static void copy(const Frame &source, Frame &target) {
        const bool made = target.frame == nullptr;
        const uint32_t more = source.used != source.length ? 0 : source.used < 19200 ? 16 : 4096;
        if (target.length < source.used) {
            target.block = nullptr;
        }
        target.takes(DFRAME_COPY, source);
        target.used = source.used;
        const uint32_t front = made && source.used != 0 ? source.moved : 0; // it comes with the bytes there
        if (made || (!target.block && source.length != 0)) {
            target.moved = front;
            target.length = rounded(source.length + more + (made ? source.moved : 0), source.inPool()) - front;
            target.attach(source.inPool());
        }
        if (source.used == 0) {
            return;
        }
        target.block->copied(*source.block, source.moved - front, uint64_t{front} + source.used,
                             target.moved - front);
    }
    // Buffers of one heap change frames; else the bytes in use move.
    void swap(Frame &source, Frame &target) {
        const bool fresh = !target.block, oneHeap = fresh || source.inPool() == target.inPool();
        if (source.block && !oneHeap &&
            std::max(source.used, target.used) >= std::min(source.length, target.length)) {
            return; // they may not fit
        }
        const uint32_t least = 1 + random.upTo(50000);
        if (fresh) {
            target.length = rounded(std::max(least, target.frame != nullptr ? 0 : source.length), source.inPool());
        }
        target.takes(DFRAME_SWAP, source, least);
        if (fresh) {
            target.moved = 0;
            target.block =
                std::make_shared<Block>(Block{(source.block ? source : target).frame->lpData, source.inPool()});
        }
        if (!source.block) {
            return;
        }
        std::swap(source.used, target.used);
        if (oneHeap) {
            std::swap(source.block, target.block);
            std::swap(source.moved, target.moved);
            return std::swap(source.length, target.length);
        }
        const Block before = *source.block;
        source.block->copied(*target.block, target.moved, source.used, source.moved);
        target.block->copied(before, source.moved, target.used, target.moved);
    }
    void resize(Frame &model) {
        const uint32_t wanted = random.chance(4) ? 0 : random.chance(8) ? model.length : random.size();
        const bool works = model.block && wanted != model.length;
        same("result", model.does(DFRAME_RESIZE, wanted), works || wanted == model.length ? 0 : UINT64_MAX);
        if (!works) {
            return;
        }
        const std::shared_ptr<Block> old = std::move(model.block);
        model.length = wanted;
        model.used = std::min(model.used, wanted);
        if (wanted == 0 && model.moved == 0) {
            return;
        }
        model.attach(old->inPool);
        model.block->copied(*old, 0, uint64_t{model.moved} + model.used, 0);
    }
    void figures() {
        const uint32_t kinds[] = {DFRAME_LARGEST, DFRAME_TOTALAVAIL, DFRAME_TOTALUSED};
        uint64_t figure = 0;
        const uint64_t result = run(kinds[random.upTo(2)], reinterpret_cast<PDFRAME *>(&figure));
        same("figure", figure, round.pool == 0 ? 0 : result);
        same("sound figure", figure % 4096 == 0 && figure <= round.pool, 1);
        if (random.chance(50)) {
            same("result", run(DFRAME_DUMP), 0);
        }
    }
    // A new block in the shared heap, and something with two others; with many, one goes.
    void heapStep() {
        const uint64_t wanted = 1 + random.upTo(20000);
        Taken made{wanted, random.next(), static_cast<uint8_t>(random.next()), 1, 0};
        uint64_t physical = 0, owner = 0;
        made.addr = DFHEAP_Alloc(round.heap, &made.size, made.owner, &physical);
        same("size of a block", made.size, (wanted + kGranule - 1) / kGranule * kGranule);
        same("physical offset", physical - kPhysical, made.addr - reinterpret_cast<uintptr_t>(region));
        std::memset(made.bytes(), made.key, made.size);
        taken.push_back(made);
        Taken &block = taken[random.upTo(taken.size() - 1)], &other = taken[random.upTo(taken.size() - 1)];
        const uintptr_t inside = block.addr + random.upTo(block.size - 1);
        uintptr_t start = inside;
        same("FindAlloc", DFHEAP_FindAlloc(round.heap, &inside), inside - block.addr);
        same("FixAlloc", DFHEAP_FixAlloc(round.heap, &start) == 0 ? start : 0, block.addr);
        same("AddRef", DFHEAP_AddRef(round.heap, inside, &owner) == 0 ? owner : 0, block.owner);
        ++block.references;
        const uintptr_t ofAll = round.commonBlock + random.upTo(9999);
        same("AddRef", DFHEAP_AddRef(round.heap, ofAll, &owner) == 0 ? owner : 0, round.seed);
        same("Free", DFHEAP_Free(round.heap, ofAll, nullptr) > 0, 1);
        if (&block != &other) {
            const int32_t result = DFHEAP_SwapRef(round.heap, inside, block.owner, other.addr, other.owner);
            same("SwapRef", result == 0, 1);
            std::swap(block.owner, other.owner);
            std::swap(block.references, other.references);
        }
        if (taken.size() > 30) {
            dropBlock(random.upTo(30));
        }
    }
    void dropBlock(std::size_t at) {
        Taken &block = taken[at];
        for (uint64_t i = 0; i < block.size; ++i) {
            same("byte of a block", block.bytes()[i], block.key);
        }
        while (block.references-- != 0) {
            uint64_t owner = 1;
            const int32_t left = DFHEAP_Free(round.heap, block.addr + random.upTo(block.size - 1), &owner);
            same("Free", left == block.references ? owner : 1, left == 0 ? block.owner : 0);
        }
        taken.erase(taken.begin() + static_cast<std::ptrdiff_t>(at));
    }
    // A command of two frames, on a target that is there or on one that it makes.
    void pairStep(Frame &model, uint32_t dice) {
        const bool makes = frames.size() < kFrames && random.chance(2);
        Frame made;
        Frame &source = dice != 13 && random.chance(2) ? common[random.upTo(kCommon - 1)] : model;
        Frame &target = makes ? made : frames[random.upTo(frames.size() - 1)];
        if (&source == &target || target.references != 1) {
            return;
        }
        if (dice < 12 && (!target.block || !target.block->common)) {
            copy(source, target);
        }
        if (dice == 12 && source.block) {
            target.takes(DFRAME_DUP_FREE, source);
            target = {target.frame, 1, source.length, source.used, source.moved, source.block};
        }
        if (dice == 13 && source.block.use_count() < 2 && target.block.use_count() < 2) {
            swap(source, target);
        }
        if (target.frame == nullptr) {
            return;
        }
        source.check();
        target.check();
        if (makes) {
            frames.push_back(std::move(made));
        }
    }
    void step() {
        const uint32_t dice = random.upTo(21);
        if (frames.size() < 3 || (dice < 2 && frames.size() < kFrames)) {
            return alloc(frames.emplace_back());
        }
        Frame &model = frames[random.upTo(frames.size() - 1)];
        Frame &ofAll = common[random.upTo(kCommon - 1)];
        model.check();
        if (dice == 2 && model.references == 1 && model.length != 0) {
            alloc(model);
        }
        if (dice == 3 && model.block) {
            model.add();
        }
        if (dice == 4 || dice == 5) {
            model.drop();
        }
        if (dice == 6) {
            ofAll.add();
        }
        if (dice == 7 && ofAll.references > 1) {
            ofAll.drop();
        }
        if (dice == 8) {
            figures();
        }
        if (dice == 9) {
            heapStep();
        }
        if (dice >= 10 && dice <= 13) {
            pairStep(model, dice);
        }
        if (dice == 14 && model.references == 1) {
            resize(model);
        }
        if (dice == 15) {
            same("result", model.does(DFRAME_FIXALLOC), model.moved = 0);
        }
        if (dice == 16 || dice == 17) {
            move(model);
        }
        if (dice > 17) {
            write(model);
        }
        std::erase_if(frames, [](const Frame &frame) { return frame.references == 0; });
    }
    void work() {
        while (doing.step++ < kSteps) {
            step();
        }
        while (!taken.empty()) {
            dropBlock(0);
        }
        for (std::vector<Frame> *list : {&frames, &common}) {
            for (Frame &model : *list) {
                for (model.check(); model.references != 0;) {
                    model.drop();
                }
            }
        }
    }
};

// Frames and a block for all threads; each thread gets a reference to each frame.
void prepare(Round &round) {
    if (round.pool != 0) {
        same("result", run(DFRAME_RESET, nullptr, kPool), 0);
    }
    Worker maker{round, {std::mt19937_64(round.seed)}};
    for (Frame &model : round.common) {
        maker.alloc(model);
        model.used = model.frame->dwBytesUsed = model.length;
        model.block->write(0, model.length, maker.random);
        maker.move(model);
        model.block->common = true;
        for (unsigned i = 1; i < kThreads; ++i) {
            same("result", model.does(DFRAME_ADDREF), 0);
        }
    }
    uint64_t bytes = 10000;
    round.heap = DFHEAP_Create(kPhysical, reinterpret_cast<uintptr_t>(region), kRegion, kGranule, 2048);
    round.commonBlock = DFHEAP_Alloc(round.heap, &bytes, round.seed, nullptr);
}

// Everything has been released.
void finish(const Round &round) {
    uint32_t blocks = 1, segments = 0;
    same("Free", DFHEAP_Free(round.heap, round.commonBlock, nullptr) == 0, 1);
    same("State", DFHEAP_State(round.heap, &blocks, &segments) == 0, 1);
    same("blocks and segments", uint64_t{blocks} << 32 | segments, 1);
    if (round.pool != 0) {
        same("bytes in the pool", run(DFRAME_TOTALUSED), 0);
    }
    same("result", run(DFRAME_CLOSE), 0);
    same("bytes in use", run(DFRAME_TOTALUSED) | run(DFRAME_TOTALUSED | DFRAME_FLAG_SYSHEAP), 0);
    DFHEAP_Destroy(round.heap); // its message has the counts of all heaps
}

// The number of commands.
uint64_t runRound(uint64_t seed) {
    doing = {seed, 0, 0, 0, 0};
    Round round{seed, seed % 3 == 0 ? kPool : 0};
    prepare(round);
    std::atomic<uint64_t> commands = 0;
    std::vector<std::thread> threads;
    for (unsigned i = 1; i <= kThreads; ++i) {
        threads.emplace_back([&, i] {
            doing = {seed, 0, i, 0, 0};
            Worker{round, {std::mt19937_64(seed << 8 | i)}}.work();
            commands += doing.commands;
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    finish(round);
    return commands + doing.commands;
}

} // namespace

int main(int argc, char **argv) {
    uint64_t seconds = 10, seed = 0;
    if (argc > 3 || (argc > 1 && std::sscanf(argv[1], "%lu", &seconds) != 1) ||
        (argc > 2 && std::sscanf(argv[2], "%lu", &seed) != 1)) {
        std::fputs(
            "soak [SECONDS] [SEED]: 10 seconds of rounds, with seeds from the clock on, or with SEED each time.\n"
            "Its threads make the same choices again, but which one runs when can't be replayed.\n",
            stderr);
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = onFault;
    sigaction(SIGSEGV, &action, &beforeFault);
    sigaction(SIGABRT, &action, nullptr);
    qxSetLogSink(takeMessage, nullptr);
    region = static_cast<uint8_t *>(qxOSVirtualAlloc(kRegion));
    const uint64_t first = seed != 0 ? seed : static_cast<uint64_t>(std::time(nullptr)) % 1000000 * 1000;
    uint64_t last = first, rounds = 0, commands = 0, told = qxOSGetTimeMs();
    for (const uint64_t end = told + seconds * 1000; rounds == 0 || qxOSGetTimeMs() < end; ++rounds) {
        last = seed != 0 ? first : first + rounds;
        commands += runRound(last);
        if (qxOSGetTimeMs() - told < 1000) {
            continue;
        }
        told = qxOSGetTimeMs();
        std::printf("soak: %lu rounds, %lu commands\n", rounds + 1, commands);
        std::fflush(stdout);
    }
    qxOSVirtualFree(region);
    qxSetLogSink(nullptr, nullptr);
    std::printf("soak: %lu rounds, %lu commands, seeds %lu to %lu: all sound\n", rounds, commands, first, last);
}
