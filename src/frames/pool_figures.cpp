// What the pool holds, in figures. They answer for the pool if there is one and the caller means it, else for the
// local side: what a pool of the size to be tried next would hold beside the local blocks.
#include "frames.h"

#include "trace/trace.h"

#include <algorithm>
#include <cstring>

namespace brenvole {

namespace {

// The heap that a command asks about; null for the local side.
::DFHEAP *askedHeap(uint32_t command) { return (command & DFRAME_FLAG_SYSHEAP) == 0 ? mainHeap.load() : nullptr; }

uint64_t localFree() {
    const uint64_t size = mainPoolSize;
    return size - std::min<uint64_t>(size, localBytes);
}

uint64_t localUsed() {
    const uint64_t used = localBytes;
    return used < mainPoolSize ? used : 0;
}

// The whole figure goes through ppDF, which is a pointer to a 64-bit word here; the result is held to 32 bits.
uint64_t held(uint64_t figure, PDFRAME *ppDF) {
    if (ppDF != nullptr) {
        std::memcpy(static_cast<void *>(ppDF), &figure, sizeof figure);
    }
    return std::min<uint64_t>(figure, UINT32_MAX);
}

} // namespace

uint64_t commandTotal(uint32_t command) { return askedHeap(command) != nullptr ? mainPoolSize.load() : localFree(); }

uint64_t commandLargest(uint32_t command, PDFRAME *ppDF) {
    ::DFHEAP *const heap = askedHeap(command);
    return heap != nullptr ? held(DFHEAP_LargestAvail(heap), ppDF) : localFree();
}

uint64_t commandTotalAvail(uint32_t command, PDFRAME *ppDF) {
    ::DFHEAP *const heap = askedHeap(command);
    return heap != nullptr ? held(DFHEAP_TotalFree(heap), ppDF) : localFree();
}

uint64_t commandTotalUsed(uint32_t command, PDFRAME *ppDF) {
    ::DFHEAP *const heap = askedHeap(command);
    return heap != nullptr ? held(DFHEAP_TotalUsed(heap), ppDF) : localUsed();
}

uint64_t commandDump(uint32_t command) {
    if (::DFHEAP *const heap = askedHeap(command)) {
        _DFHEAP_DumpList(heap);
    }
    TraceSnapshot("DFrameDump");
    return 0;
}

} // namespace brenvole
