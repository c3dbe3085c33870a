// Which heaps there are, and what a fork does with their locks (see dfmem_lock.h).
#include "heap.h"

#include "local/dfmem_lock.h"
#include "util/host.h"
#include "util/once.h"
#include "util/static_lock.h"

#include <mutex>

namespace brenvole {

namespace {

constinit DFHEAP *firstHeap = nullptr;
constinit QXStaticLock heapsLock; // guards the chain; a heap's Lock is acquired under it by a fork alone

constinit QXOnce hookOnce = 0;

template <class Do> void eachHeap(const Do &work) {
    for (DFHEAP *heap = firstHeap; heap != nullptr; heap = heap->lpNext) {
        work(heap);
    }
}

void beforeFork() {
    heapsLock.lock();
    eachHeap([](DFHEAP *heap) { qxOSEnterCriticalSection(&heap->Lock); });
}

void forkedParent() {
    eachHeap([](DFHEAP *heap) { qxOSLeaveCriticalSection(&heap->Lock); });
    heapsLock.unlock();
}

void forkedChild() {
    eachHeap([](DFHEAP *heap) { qxOSInitializeCriticalSection(&heap->Lock); });
    heapsLock.unlock();
}

} // namespace

void allHeapsEnter(DFHEAP *heap) {
    allHeapsHookFork();
    const std::scoped_lock hold(heapsLock);
    heap->lpPrev = nullptr;
    heap->lpNext = firstHeap;
    if (firstHeap != nullptr) {
        firstHeap->lpPrev = heap;
    }
    firstHeap = heap;
}

void allHeapsLeave(DFHEAP *heap) {
    const std::scoped_lock hold(heapsLock);
    (heap->lpPrev != nullptr ? heap->lpPrev->lpNext : firstHeap) = heap->lpNext;
    if (heap->lpNext != nullptr) {
        heap->lpNext->lpPrev = heap->lpPrev;
    }
}

void allHeapsHookFork() {
    qxOnce(hookOnce, [] {
        dfmemHookFork();
        qxAtFork(beforeFork, forkedParent, forkedChild);
    });
}

} // namespace brenvole
