#include "local_heap.h"

#include "block_memory.h"
#include "dfmem_lock.h"
#include "local_block.h"
#include "trace/trace.h"
#include "util/guard.h"
#include "util/hold.h"

#include <algorithm>
#include <cassert>
#include <new>

namespace brenvole {

namespace {

// What a block has beyond its data: room for the alignment and the descriptor area.
constexpr uint32_t kBlockExtra = kDataAlignment + kDescriptorArea;
// What it has beyond that where the end of its data is guarded.
uint32_t guardRoom() { return blockGuardsOn() ? kDataUnit : 0; }
// The largest request whose block size still fits the allocator's 32 bits.
uint32_t largestRequest() { return (UINT32_MAX - kBlockExtra - guardRoom()) / kDataUnit * kDataUnit; }
// A request must be larger than this to take the cached block: a small one would waste a big block.
constexpr uint32_t kCacheThreshold = 688802;

// The cached block, as QXAlloc returned it, and its effective size. Both change under dfmemLock; the pointer is
// also read without it, as a first test. The size is 0 while the pointer is null.
std::atomic<char *> lastBigAlloc = nullptr;
uint32_t lastBigAllocSize = 0;

void warn(const char *text) { ErrFmtOut(QX_WARNING, 0, 0, "WARNING(dfmem): %s\n", text); }

// The warning of a recovery, which a sink must not keep from its end.
void warnOfFault(const char *text) {
    qxGuarded([text] { warn(text); });
}

// The lock around guarded work: `locked` tells the recovery whether it is to be given back.
template <class Work> void enter(Work &work) {
    qxOSEnterCriticalSection(&dfmemLock);
    work.locked = true;
}

template <class Work> void leave(Work &work) {
    work.locked = false;
    qxOSLeaveCriticalSection(&dfmemLock);
}

uint32_t blockSizeOf(uint32_t size) {
    return (size + kDataUnit - 1) / kDataUnit * kDataUnit + kBlockExtra + guardRoom();
}

uint8_t *dataOf(char *block) {
    constexpr uint64_t kUp = kBlockExtra - 1;
    return reinterpret_cast<uint8_t *>((reinterpret_cast<uint64_t>(block) + kUp) / kDataAlignment * kDataAlignment);
}

PHALLOC *descriptorOf(char *block) { return reinterpret_cast<PHALLOC *>(dataOf(block) - kDescriptorArea); }

// Lock held.
void uncount(uint32_t size) {
    dfmemUncount<uint64_t>(local_allocs, 1);
    dfmemUncount(localBytes, size);
}

// A block whose data has that size; what follows the data is the guard.
BlockMemory memoryOf(char *block, uint32_t size, uint64_t owner, const char *msgarea, uint32_t line) {
    const auto data = reinterpret_cast<uint64_t>(dataOf(block));
    return {data, size, reinterpret_cast<uint64_t>(block) + blockSizeOf(size) - data - size, owner, msgarea, line};
}

void giveBack(char *block, uint32_t size) {
    localForget(descriptorOf(block));
    if (blockMemoryMatters()) {
        blockMemoryGiveBack(memoryOf(block, size, 0, nullptr, 0));
    }
    QXFree(block);
}

// ---- LHEAP_Alloc -----------------------------------------------------------------------------------------------

// Steps: 1 and 2 refusals; 3 the cached block, if it serves; 4 a new block; 5 none to be had; 6 the descriptor;
// 7 the frame gets its data, under the lock; 8 the result.

// What the guarded work shares with the recovery from a fault.
struct Making {
    PDFRAME pDF;
    uint32_t size; // the effective size
    uint32_t wanted;
    const char *msgarea;
    uint32_t line;
    volatile bool locked = false;
    volatile bool setting = false;  // at step 7
    char *volatile block = nullptr; // obtained and not yet handed out
    uint8_t *volatile result = nullptr;

    ~Making() { // if an exception or the thread's end comes by way of a sink or an allocator
        if (locked) {
            leave(*this);
        }
    }
};

// Step 3: the cached block, if it serves. Sets the effective size.
void takeCached(Making &making) {
    if (making.size <= kCacheThreshold || lastBigAlloc.load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    const QXHold hold(dfmemLock);
    assert(lastBigAlloc.load(std::memory_order_relaxed) != nullptr || lastBigAllocSize == 0);
    if (making.size <= lastBigAllocSize) { // 0 in an empty cache: a block that has gone meanwhile isn't taken
        uncount(lastBigAllocSize);
        making.size = lastBigAllocSize;
        making.block = lastBigAlloc.load(std::memory_order_relaxed);
        lastBigAlloc.store(nullptr, std::memory_order_relaxed);
        lastBigAllocSize = 0;
    }
}

// Step 6. Nothing else of the block is written: a block from the cache keeps its old data.
PHALLOC *writeDescriptor(const Making &making) {
    PHALLOC *const descriptor = new (descriptorOf(making.block)) PHALLOC;
    assert(reinterpret_cast<char *>(descriptor) >= making.block);
    assert(dataOf(making.block) + making.size <=
           reinterpret_cast<uint8_t *>(making.block) + blockSizeOf(making.size));
    descriptor->qwOffset = 0;
    descriptor->dwGuard1 = kLocalGuard1;
    descriptor->lpAddr = reinterpret_cast<uint64_t>(making.block);
    descriptor->dwGuard2 = kLocalGuard2;
    descriptor->qwSize = making.size;
    descriptor->dwGuard3 = kLocalGuard3;
    descriptor->lRefCount = 1;
    descriptor->dwGuard4 = kLocalGuard4;
    descriptor->pOwner = reinterpret_cast<uint64_t>(making.pDF);
    descriptor->dwGuard5 = kLocalGuard5;
    descriptor->pSelf = descriptor;
    descriptor->dwGuard6 = kLocalGuard6;
    descriptor->cTag = 0;
    return descriptor;
}

// Lock held.
void traceHandedOut(const Making &making, const PHALLOC *descriptor) {
    whenTracing([&] {
        traceRecordAlloc("local", making.pDF, LHEAP_DataStart(descriptor), tracePointer(descriptor->lpAddr),
                         making.wanted, descriptor->qwSize, descriptor->lRefCount, making.msgarea, making.line,
                         "LHEAP_Alloc");
    });
}

// Step 7: the frame gets its data. The store stands first, since it alone can fault: then nothing was counted.
void handOut(Making &making, const PHALLOC *descriptor) {
    enter(making);
    localRemember(descriptor);
    making.setting = true;
    const_cast<volatile DFRAME *>(making.pDF)->lpData = dataOf(making.block);
    making.setting = false;
    std::atomic_signal_fence(std::memory_order_seq_cst); // what follows must not come before it
    making.block = nullptr;
    dfmemCount<uint64_t>(local_allocs, 1);
    dfmemCount(localBytes, making.size);
    traceHandedOut(making, descriptor);
    leave(making);
    making.result = making.pDF->lpData; // step 8
}

// The frame couldn't be given its data. That has a message of its own, and then step 8 follows, which may not find
// what the frame holds either.
void settingFaulted(Making &making) {
    const PHALLOC *const descriptor = descriptorOf(making.block);
    making.setting = false;
    warn("Exception settinging local audio video memory");
    TraceProblem("local_alloc_set_exception", making.pDF, LHEAP_DataStart(descriptor), making.wanted,
                 descriptor->qwSize, descriptor->lRefCount, making.msgarea, making.line,
                 "exception setting local DFrame data");
    leave(making);
    making.result = making.pDF->lpData;
}

void prepareMemory(const Making &making, bool cached) {
    const BlockMemory memory =
        memoryOf(making.block, making.size, reinterpret_cast<uint64_t>(making.pDF), making.msgarea, making.line);
    if (cached) {
        blockMemoryReuse(memory);
    }
    blockMemoryHandOut(memory);
}

// Steps 4 to 7.
void makeBlock(Making &making) {
    const bool cached = making.block != nullptr;
    if (!cached && making.size <= largestRequest()) {
        making.block = static_cast<char *>(QXAlloc(blockSizeOf(making.size)));
    }
    if (making.block == nullptr) { // 5: the callers report
        TraceProblem("local_alloc_failed", making.pDF, nullptr, making.wanted, making.size, 0, making.msgarea,
                     making.line, "QXAlloc failed for local DFrame data");
        return;
    }
    if (blockMemoryMatters()) {
        prepareMemory(making, cached);
    }
    handOut(making, writeDescriptor(making));
}

// A block that a fault has kept from its frame. Its descriptor must not be found once the block is released; the
// fault may have been that it can't be written.
void dropUnused(Making &making) {
    char *const block = making.block;
    qxGuarded([&] { descriptorOf(block)->lRefCount = 0; });
    qxGuarded([&] { giveBack(block, making.size); });
}

// ---- LHEAP_Free ------------------------------------------------------------------------------------------------

// Steps: 1 to 3 refusals; 4 the count goes down, under the lock; 5 references are left; 6 into the cache; 7 it is the
// cached block already; 8 the block goes.

struct Releasing {
    PHALLOC *pHA;
    const char *msgarea;
    uint32_t line;
    volatile bool locked = false;
    volatile bool counted = false;
    volatile bool dropping = false; // at the state changes of step 8, where a fault is none
    volatile bool faulted = false;  // where the work went on, as far as it had to
    char *volatile block = nullptr; // as the descriptor had them: the trace tells of the block when it may be gone
    volatile uint64_t owner = 0;
    volatile int32_t count = -1; // references left, as read under the lock; valid if counted
    volatile uint32_t size = 0;

    ~Releasing() { // as in Making
        if (locked) {
            leave(*this);
        }
    }
};

// Step 6, lock held. The new block is in place before the old one goes, so that a fault in QXFree loses neither.
// False after such a fault.
bool replaceCached(char *block, uint32_t size) {
    char *const old = lastBigAlloc.load(std::memory_order_relaxed);
    const uint32_t oldSize = lastBigAllocSize;
    if (old != nullptr) {
        assert(old != block && size > oldSize);
        uncount(oldSize);
    }
    lastBigAlloc.store(block, std::memory_order_relaxed);
    lastBigAllocSize = size;
    return old == nullptr || qxGuarded([=] { giveBack(old, oldSize); });
}

void traceRefused(const Releasing &releasing, const char *action, const char *detail) {
    TraceProblem(action, nullptr, releasing.pHA, 0, 0, releasing.pHA->lRefCount, releasing.msgarea, releasing.line,
                 detail);
}

void traceFreed(const Releasing &releasing, const char *action, int32_t count, const char *detail) {
    whenTracing([&] {
        traceRecordRelease(action, "local", tracePointer(releasing.owner), dataOf(releasing.block), count,
                           releasing.msgarea, releasing.line, detail);
    });
}

// The end of step 8.
void drop(Releasing &releasing) {
    releasing.dropping = false;
    leave(releasing);
    traceFreed(releasing, "local_free", 0, "LHEAP_Free release");
    giveBack(releasing.block, releasing.size);
}

// Lock held: nobody else gets the block meanwhile.
void retireMemory(const Releasing &releasing) {
    if (blockMemoryMatters()) {
        blockMemoryRelease(
            memoryOf(releasing.block, releasing.size, releasing.owner, releasing.msgarea, releasing.line));
    }
}

// Steps 2 to 8.
int32_t release(Releasing &releasing) {
    PHALLOC *const pHA = releasing.pHA;
    if (!localGuardsHold(pHA)) { // 2
        ErrOut("LHEAP_Free: PHALLOC magic corrupted - possible overwrite at 0x%p", static_cast<void *>(pHA));
        traceRefused(releasing, "local_free_magic_corrupt", "PHALLOC magic corrupted");
        return -1;
    }
    if (pHA->pSelf != pHA) { // 3
        ErrOut("LHEAP_Free: PHALLOC self-pointer corrupted at 0x%p", static_cast<void *>(pHA));
        traceRefused(releasing, "local_free_self_corrupt", "PHALLOC self pointer corrupted");
        return -1;
    }
    const uint64_t whole = pHA->qwSize; // 4
    const auto size = static_cast<uint32_t>(whole);
    auto *const block = reinterpret_cast<char *>(pHA->lpAddr);
    releasing.block = block;
    releasing.size = size;
    enter(releasing);
    qxOSInterlockedDecrement(&pHA->lRefCount);
    releasing.count = pHA->lRefCount;
    releasing.counted = true;
    releasing.owner = pHA->pOwner;
    if (releasing.count > 0) { // 5
        leave(releasing);
        traceFreed(releasing, "local_free", releasing.count, "LHEAP_Free deref");
        return releasing.count;
    }
    if (size > lastBigAllocSize) { // 6
        retireMemory(releasing);
        const bool replaced = replaceCached(block, size);
        traceFreed(releasing, "local_cache_save", 0, "LHEAP_Free saved local allocation cache");
        if (!replaced) {
            releasing.faulted = true;
            return 0;
        }
        leave(releasing);
        return 0;
    }
    if (block == lastBigAlloc.load(std::memory_order_relaxed)) { // 7
        ErrOut("BRENVOLE:Attempt to free last big alloc ");
        lastBigAllocSize = size;
        leave(releasing);
        TraceProblem("local_free_cached_again", tracePointer(releasing.owner), dataOf(block), 0, whole,
                     releasing.count, releasing.msgarea, releasing.line,
                     "attempt to free cached local allocation twice");
        return 0;
    }
    retireMemory(releasing); // 8
    releasing.dropping = true;
    std::atomic_signal_fence(std::memory_order_seq_cst); // what follows must not come before it
    pHA->lpAddr = 0;
    uncount(size);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    drop(releasing);
    return 0;
}

// After a fault: the count of the block, which may be gone if it was counted down, or may never have been there.
int32_t countAfterFault(Releasing &releasing) {
    if (!releasing.counted) {
        qxGuarded([&] { releasing.count = const_cast<volatile PHALLOC *>(releasing.pHA)->lRefCount; });
    }
    return releasing.count;
}

} // namespace

uint8_t *LHEAP_Alloc(uint32_t size, PDFRAME pDF, const char *msgarea, uint32_t line) {
    if (pDF == nullptr) { // 1
        ErrOut("LHEAP_Alloc called with NULL pDF");
        TraceProblem("local_alloc_no_dframe", nullptr, nullptr, size, 0, 0, msgarea, line,
                     "LHEAP_Alloc called with NULL pDF");
        return nullptr;
    }
    if (size == 0) { // 2
        ErrOut("LHEAP_Alloc called with zero size");
        TraceProblem("local_alloc_zero", pDF, nullptr, 0, 0, 0, msgarea, line, "LHEAP_Alloc called with zero size");
        return nullptr;
    }
    Making making{.pDF = pDF, .size = size, .wanted = size, .msgarea = msgarea, .line = line};
    takeCached(making); // 3
    bool whole = qxGuarded([&] { makeBlock(making); });
    if (!whole && making.setting) {
        whole = qxGuarded([&] { settingFaulted(making); });
    }
    if (!whole) {
        warnOfFault("Exception allocating local audio video memory");
        if (making.locked) {
            leave(making);
        }
        TraceProblem("local_alloc_exception", pDF, nullptr, size, 0, 0, msgarea, line,
                     "exception allocating local DFrame data");
        qxGuarded([&] { making.result = pDF->lpData; });
    }
    if (making.block != nullptr) {
        dropUnused(making);
    }
    return making.result;
}

int32_t LHEAP_Free(PHALLOC *pHA, const char *msgarea, uint32_t line) {
    if (pHA == nullptr) { // 1
        ErrOut("LHEAP_Free called with NULL pHA");
        TraceProblem("local_free_null", nullptr, nullptr, 0, 0, 0, msgarea, line, "LHEAP_Free called with NULL pHA");
        return -1;
    }
    Releasing releasing{.pHA = pHA, .msgarea = msgarea, .line = line};
    volatile int32_t result = -1;
    bool whole = qxGuarded([&] { result = release(releasing); });
    if (!whole && releasing.dropping) {
        whole = qxGuarded([&] {
            drop(releasing);
            result = 0;
        });
    }
    if (!whole || releasing.faulted) {
        warnOfFault("Exception freeing audio video memory");
        if (releasing.locked) {
            leave(releasing);
        }
        TraceProblem("local_free_exception", nullptr, pHA, 0, 0, 0, msgarea, line, "exception in LHEAP_Free");
        result = countAfterFault(releasing);
    }
    return result;
}

uint8_t *LHEAP_DataStart(const PHALLOC *descriptor) { return dataOf(reinterpret_cast<char *>(descriptor->lpAddr)); }

void LHEAP_DropCache() {
    const bool locked = dfmemLockReady();
    if (locked) {
        qxOSEnterCriticalSection(&dfmemLock);
    }
    char *const block = lastBigAlloc.load(std::memory_order_relaxed);
    const uint32_t size = lastBigAllocSize;
    if (block != nullptr) {
        if (local_allocs.load(std::memory_order_relaxed) != 0) {
            dfmemUncount<uint64_t>(local_allocs, 1);
        }
        dfmemUncount(localBytes, std::min(lastBigAllocSize, localBytes.load(std::memory_order_relaxed)));
        lastBigAlloc.store(nullptr, std::memory_order_relaxed);
        lastBigAllocSize = 0;
    }
    if (locked) {
        qxOSLeaveCriticalSection(&dfmemLock);
    }
    if (block != nullptr) {
        giveBack(block, size);
    }
}

} // namespace brenvole
