// Where a frame's data lies. It is stored nowhere: every command asks afresh, the pool first, then the local heap;
// both know an address anywhere inside a block. What all commands do with a buffer by its place stands here, and the
// four commands that only ask.
#include "frames.h"

#include "local/dfmem_lock.h"
#include "local/local_heap.h"
#include "trace/trace.h"
#include "util/guard.h"
#include "util/hold.h"

#include <algorithm>

namespace brenvole {

namespace {

// The header of a frame whose data the caller has laid out anew. The body, with lpTail, the sizes and wTrailJ stay.
void resetHeader(PDFRAME frame) {
    frame->dwFlags = 0; // the mark of creation and the tail's flag go as well
    frame->dwTrailA = 0;
    frame->dwTrailB = 0;
    frame->dwCreateMark = 0;
    frame->qwTrailC = 0;
    frame->dwTrailD = 0;
    frame->dwTrailE = 0;
    frame->dwTrailF = 0;
    frame->dwTrailG = 0;
    frame->dwTrailH = 0;
    frame->dwTrailI = 0;
    frameStampAttach(frame);
}

} // namespace

DataPlace framePlace(const DFRAME *frame) {
    ::DFHEAP *const heap = frameHeap(frame);
    return {heap, heap != nullptr ? nullptr : LHEAP_Find(frameData(frame))};
}

bool frameBeyondBlock(const DFRAME *frame, const DataPlace &place) {
    return place.local != nullptr && LHEAP_Offset(place.local, frameData(frame)) > place.local->qwSize;
}

uint64_t frameBytesThere(const DFRAME *frame, const DataPlace &place) {
    if (place.heap != nullptr) {
        return DFHEAP_BytesFrom(place.heap, frameData(frame));
    }
    if (place.local != nullptr) {
        const uint64_t size = place.local->qwSize;
        return size - std::min(size, LHEAP_Offset(place.local, frameData(frame)));
    }
    return UINT64_MAX;
}

uint32_t frameCopyUsed(uint8_t *destination, uint32_t capacity, const DFRAME *frame, const DataPlace &place) {
    const uint32_t used = frame->dwBytesUsed;
    const uint32_t length = frame->dwBufferLength;
    const uint64_t there = frameBytesThere(frame, place);
    if (there != UINT64_MAX || used <= length) {
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(used, there));
        qxOSCopyMemorySafeFast(destination, frame->lpData, count, capacity);
        return std::min(count, capacity);
    }
    qxOSCopyMemorySafeFast(destination, frame->lpData, length, capacity);
    if (capacity <= length) {
        return capacity;
    }
    const bool whole = qxGuarded([=] { // what the frame claims may not be there
        qxOSCopyMemorySafeFast(destination + length, frame->lpData + length, used - length, capacity - length);
    });
    return whole ? std::min(used, capacity) : length;
}

bool frameReleaseData(const DFRAME *frame, const char *msgarea, uint32_t line) {
    const DataPlace place = framePlace(frame);
    if (place.heap != nullptr) {
        DFHEAP_FreeTrace(place.heap, frameData(frame), nullptr, msgarea, line);
    } else if (place.local != nullptr) {
        LHEAP_Free(place.local, msgarea, line); // a refusal has been told there, and changes nothing here
    }
    return place.known();
}

int32_t frameAddRefData(const DFRAME *frame, const DataPlace &place, const char *msgarea, uint32_t line,
                        const char *detail) {
    if (place.heap != nullptr) {
        return DFHEAP_AddRefTrace(place.heap, frameData(frame), nullptr, msgarea, line);
    }
    PHALLOC *const descriptor = place.local;
    int32_t count = 0;
    uint64_t owner = 0;
    {
        const QXHold hold(dfmemLock);
        qxOSInterlockedIncrement(&descriptor->lRefCount);
        count = descriptor->lRefCount;
        owner = descriptor->pOwner;
    }
    TraceTouch("local_addref", "local", tracePointer(owner), LHEAP_DataStart(descriptor), count, msgarea, line,
               detail);
    return 0;
}

bool frameAllocBuffer(PDFRAME frame, ::DFHEAP *heap, const char *msgarea, uint32_t line) {
    if (heap == nullptr) {
        return LHEAP_Alloc(frame->dwBufferLength, frame, msgarea, line) != nullptr; // stores it, too
    }
    uint64_t size = frame->dwBufferLength;
    const uintptr_t data = DFHEAP_AllocTrace(heap, &size, reinterpret_cast<uintptr_t>(frame), nullptr, msgarea, line);
    frame->dwBufferLength = static_cast<uint32_t>(size);
    frame->lpData = reinterpret_cast<uint8_t *>(data);
    return data != 0;
}

bool frameDataToStart(PDFRAME frame, const DataPlace &place, const char *msgarea, uint32_t line) {
    if (place.heap != nullptr) {
        uintptr_t data = frameData(frame); // the field itself isn't aligned
        DFHEAP_FixAllocTrace(place.heap, &data, msgarea, line);
        frame->lpData = reinterpret_cast<uint8_t *>(data);
    } else if (place.local != nullptr) {
        frame->lpData = LHEAP_DataStart(place.local);
    }
    return place.known();
}

uint64_t commandIsLocal(PDFRAME *ppDF) {
    const DFRAME *const frame = ppDF != nullptr ? *ppDF : nullptr;
    if (frame == nullptr) {
        return 0;
    }
    frameReportOverwrite(frame, "DFrameIsLocal memory overwrite");
    return !frameIsCustom(frame) && framePlace(frame).local != nullptr ? 1 : 0;
}

uint64_t commandIsBrenvole(PDFRAME *ppDF) {
    const DFRAME *const frame = ppDF != nullptr ? *ppDF : nullptr;
    if (frame == nullptr) {
        return 0;
    }
    frameReportOverwrite(frame, "DFrameIsBrenvole memory overwrite");
    return !frameIsCustom(frame) && frameHeap(frame) != nullptr ? 1 : 0;
}

// The pool answers with a distance, the local heap with an address.
uint64_t commandFindAlloc(PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    if (ppDF == nullptr) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_FINDALLOC|pDF==NULL(0x%lX)");
    }
    const DFRAME *const frame = *ppDF;
    if (frame == nullptr || frameIsCustom(frame)) {
        return DFMEM_E_INVALIDARG;
    }
    frameReportOverwrite(frame, "DFrameFindAlloc memory overwrite");
    if (frame->lpData == nullptr) {
        return 0;
    }
    const DataPlace place = framePlace(frame);
    const uintptr_t data = frameData(frame);
    if (place.heap != nullptr) {
        return DFHEAP_FindAllocTrace(place.heap, &data, msgarea, line);
    }
    return place.local != nullptr ? reinterpret_cast<uintptr_t>(LHEAP_DataStart(place.local)) : kFrameNowhere;
}

uint64_t commandFixAlloc(PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    if (ppDF == nullptr) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_FIXALLOC|pDF==NULL(0x%lX)");
    }
    PDFRAME const frame = *ppDF;
    if (frame == nullptr || frameIsCustom(frame)) {
        return DFMEM_E_INVALIDARG;
    }
    frameReportOverwrite(frame, "DFrameFixAlloc memory overwrite");
    if (frame->lpData == nullptr) {
        return 0;
    }
    resetHeader(frame);
    return frameDataToStart(frame, framePlace(frame), msgarea, line) ? 0 : kFrameNowhere;
}

} // namespace brenvole
