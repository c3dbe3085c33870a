// DFRAME_RESIZE: another buffer for a frame, with what the old one held. Allocate, copy, release, in this order; the
// frame stays in its heap. A moved data pointer stays moved, with the bytes in front of it.
//
// A frame whose new buffer can't be had stays as it was: no byte is lost by a refusal.
#include "frames.h"

#include "local/local_heap.h"

#include <algorithm>

namespace brenvole {

namespace {

struct Resizing {
    PDFRAME frame;
    DataPlace place;
    uint8_t *old;   // the data pointer as it was
    uint32_t inUse; // bytes in use there, in the block
    uint32_t newLength;
    const char *msgarea;
    uint32_t line;
    uint32_t offset = 0;  // of the pointer in its block
    uint32_t request = 0; // low half of what was asked for
};

// How far the data pointer lies behind the start of its block.
uint32_t offsetOf(const Resizing &resizing) {
    if (resizing.place.heap != nullptr) {
        const uintptr_t data = frameData(resizing.frame);
        return DFHEAP_FindAllocTrace(resizing.place.heap, &data, resizing.msgarea, resizing.line);
    }
    return static_cast<uint32_t>(LHEAP_Offset(resizing.place.local, frameData(resizing.frame)));
}

// Step 4: the new buffer in lpData, or null. A sum that 32 bits can't hold is more than a local block can have. In
// the pool a pointer behind the front bytes has to lie in the block still, even if no bytes follow: else it would be
// the next block's.
void allocate(Resizing &resizing) {
    PDFRAME const frame = resizing.frame;
    uint64_t request = uint64_t{resizing.newLength} + resizing.offset;
    if (resizing.place.heap != nullptr && resizing.newLength == 0 && resizing.offset % mainGranularity == 0) {
        request += resizing.offset != 0 ? 1 : 0;
    }
    resizing.request = static_cast<uint32_t>(request);
    frame->lpData = nullptr;
    if (resizing.place.heap != nullptr) {
        frame->lpData = reinterpret_cast<uint8_t *>(DFHEAP_AllocTrace(resizing.place.heap, &request,
                                                                      reinterpret_cast<uintptr_t>(frame), nullptr,
                                                                      resizing.msgarea, resizing.line));
    } else if (request <= UINT32_MAX) {
        LHEAP_Alloc(static_cast<uint32_t>(request), frame, resizing.msgarea, resizing.line); // stores it, too
    }
}

// Steps 5 to 7.
void carryOver(const Resizing &resizing) {
    PDFRAME const frame = resizing.frame;
    if (resizing.offset != 0) { // 5
        qxOSCopyMemorySafeFast(frame->lpData, resizing.old - resizing.offset, resizing.offset,
                               std::max(resizing.request, resizing.offset)); // the block may be larger than 32 bits
        frame->lpData += resizing.offset;
    }
    frame->dwBufferLength = resizing.newLength;
    const uint32_t kept = std::min(resizing.inUse, resizing.newLength);
    if (kept != 0) { // 6
        qxOSCopyMemorySafeFast(frame->lpData, resizing.old, kept, resizing.newLength);
    }
    frame->dwBytesUsed = std::min(+frame->dwBytesUsed, resizing.newLength); // 7
}

} // namespace

// Steps: 1 tests; 2 nothing to do; 3 the new length; 4 the new buffer; 5 the bytes in front; 6 the bytes; 7 no more
// in use than there is; 8 the old buffer goes; 9 the end.
uint64_t commandResize(int64_t param1, PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    if (ppDF == nullptr) { // 1
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_RESIZE|pDF==NULL(0x%lX)");
    }
    PDFRAME const frame = *ppDF;
    if (frame == nullptr || frameIsCustom(frame)) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_RESIZE|NotAnyHeap(0x%lX)");
    }
    frameReportOverwrite(frame, "DFrameResize memory overwrite");
    if (param1 == int64_t{frame->dwBufferLength}) { // 2
        return 0;
    }
    if (param1 < 0 || param1 > int64_t{UINT32_MAX}) { // 3
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_RESIZE|BadSize(0x%lX)");
    }
    const DataPlace place = framePlace(frame);
    if (!place.known() || frameBeyondBlock(frame, place)) {
        return kFrameNowhere;
    }
    Resizing resizing{
        .frame = frame,
        .place = place,
        .old = frame->lpData,
        .inUse = static_cast<uint32_t>(std::min<uint64_t>(frame->dwBytesUsed, frameBytesThere(frame, place))),
        .newLength = static_cast<uint32_t>(param1),
        .msgarea = msgarea,
        .line = line};
    resizing.offset = offsetOf(resizing); // 4
    allocate(resizing);
    if (frame->lpData == nullptr && (resizing.newLength != 0 || resizing.offset != 0)) {
        frame->lpData = resizing.old;
        return frameRefuse(DFMEM_E_OUTOFMEMORY, "DFRAME_RESIZE|NoMemory(0x%lX)");
    }
    carryOver(resizing);         // 5, 6, 7
    if (place.heap != nullptr) { // 8
        DFHEAP_FreeTrace(place.heap, reinterpret_cast<uintptr_t>(resizing.old), nullptr, msgarea, line);
    } else {
        LHEAP_Free(place.local, msgarea, line);
    }
    return 0; // 9
}

} // namespace brenvole
