// A frame's life: made, its first bytes written, released. Ours in the pool and in the local heap, the same two
// pieces of memory from general allocators, and what no frame can do without.
#include "allocators.h"
#include "frame_life.h"

#include "util/qxutil.h"

#include <array>

namespace {

constexpr int64_t kPool = 64 << 20;

uint64_t makeFrame(PDFRAME &frame, int64_t data, uint32_t side) {
    frame = nullptr;
    return DFrameMem(DFRAME_ALLOC | side, data, DFRAME_SIZE, &frame);
}

// In the middle of several threads the first one makes the pool and gives it back: the others wait in front of
// their loops and behind them.
void lifeOurs(benchmark::State &state, int64_t size, uint32_t side) {
    uint64_t refused = state.thread_index() == 0 ? DFrameMem(DFRAME_RESET, kPool, 0, nullptr) : 0;
    for ([[maybe_unused]] auto _ : state) {
        PDFRAME frame = nullptr;
        refused |= makeFrame(frame, size, side);
        if (frame == nullptr || frame->lpData == nullptr) {
            state.SkipWithError(kNoMemory);
            break;
        }
        touch(frame->lpData, static_cast<std::size_t>(size));
        refused |= DFrameMem(DFRAME_FREE, 0, 0, &frame);
    }
    if (state.thread_index() == 0) {
        DFrameMem(DFRAME_CLOSE, 0, 0, nullptr);
    }
    if (refused != 0) {
        state.SkipWithError("a command was refused");
    }
}

// The same two pieces of memory without a count, a lock or a way back from pointer to block.
void lifeAllocator(benchmark::State &state, int64_t size, AllocatorKind kind) {
    const Allocator *const from = allocatorGet(kind);
    if (from == nullptr) {
        state.SkipWithError("the allocator can't be loaded");
        return;
    }
    const auto bytes = static_cast<std::size_t>(size);
    for ([[maybe_unused]] auto _ : state) {
        void *const header = from->takeCleared(1, kHeader);
        void *const data = from->take(bytes);
        if (header == nullptr || data == nullptr) {
            state.SkipWithError(kNoMemory);
            break;
        }
        benchmark::DoNotOptimize(header);
        touch(data, bytes);
        from->giveBack(data);
        from->giveBack(header);
    }
}

// A cleared header, and a lock when the frame comes and when it goes. Each thread has its own.
void lifeFloor(benchmark::State &state, int64_t) {
    QXCRITICALSECTION lock;
    qxOSInitializeCriticalSection(&lock);
    std::array<char, kHeader> header;
    for ([[maybe_unused]] auto _ : state) {
        std::memset(header.data(), 0, header.size());
        benchmark::DoNotOptimize(header);
        for (int i = 0; i < 2; ++i) {
            qxOSEnterCriticalSection(&lock);
            qxOSLeaveCriticalSection(&lock);
        }
    }
    qxOSDeleteCriticalSection(&lock);
}

FRAME_LIFE("ours", lifeOurs, 0);
FRAME_LIFE("ours_local", lifeOurs, DFRAME_FLAG_SYSHEAP);
FRAME_LIFE("floor", lifeFloor);
FRAME_LIFE("glibc", lifeAllocator, AllocatorKind::CLibrary);
FRAME_LIFE("tcmalloc", lifeAllocator, AllocatorKind::Tcmalloc);
FRAME_LIFE("jemalloc", lifeAllocator, AllocatorKind::Jemalloc);
FRAME_LIFE("mimalloc", lifeAllocator, AllocatorKind::Mimalloc);

} // namespace
