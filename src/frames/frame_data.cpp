// A frame's data buffer: how one is attached, and how a reference to it is dropped.
//
// The data reference is dropped each time, whatever the header's count says: each holder of a frame drops one of
// both, and the buffer's own count decides when the buffer goes.
#include "frames.h"

#include "local/local_heap.h"
#include "trace/trace.h"

#include <algorithm>

namespace brenvole {

namespace {

// Smallest request that a frame makes of the local heap, in bytes.
constexpr uint64_t kLocalFloor = 4096;

// Step 2 of heapHelpAllocDFrame. dwBufferLength and dwBytesUsed stay as they are.
void forgetOldData(PDFRAME frame, const char *msgarea, uint32_t line) {
    if (frame->dwBufferLength == 0 || frame->lpData == nullptr) {
        return;
    }
    if (!frameIsCustom(frame)) {
        frameReleaseData(frame, msgarea, line);
    }
    frame->lpData = nullptr;
}

// Step 4 of heapHelpAllocDFrame. The heap rounds dataSize up, also if it has no room: the local heap is then asked
// for the rounded size.
void placeInPool(PDFRAME frame, uint64_t &dataSize, const char *msgarea, uint32_t line) {
    ::DFHEAP *heap = nullptr;
    if (!mainPoolNeed(heap)) {
        return;
    }
    const uintptr_t data =
        DFHEAP_AllocTrace(heap, &dataSize, reinterpret_cast<uintptr_t>(frame), nullptr, msgarea, line);
    frame->lpData = reinterpret_cast<uint8_t *>(data);
    if (data != 0) {
        frame->dwBufferLength = static_cast<uint32_t>(dataSize);
    }
}

// Step 5 of heapHelpAllocDFrame. The capacity told is the request, not the floor. The floor comes before the cut
// to 32 bits, so a request of exactly 2^32 bytes is one of 0.
bool placeLocally(PDFRAME frame, uint64_t dataSize, const char *msgarea, uint32_t line) {
    const auto request = static_cast<uint32_t>(std::max(dataSize, kLocalFloor));
    if (LHEAP_Alloc(request, frame, msgarea, line) == nullptr) {
        return false;
    }
    frame->dwBufferLength = static_cast<uint32_t>(dataSize);
    return true;
}

} // namespace

// Steps: 1 a header, if there is none; 2 the old data goes; 3 a frame may be asked for without data; 4 the pool;
// 5 the local heap; 6 the stamps of a frame with data; 7 it is handed out.
uint32_t heapHelpAllocDFrame(PDFRAME *ppDF, uint64_t recordSize, uint64_t dataSize, uint32_t localOnly,
                             const char *msgarea, uint32_t line) {
    PDFRAME frame = *ppDF;
    if (frame == nullptr) { // 1
        recordSize = std::max(recordSize, uint64_t{DFRAME_SIZE});
        frame = allocPDFRAME(static_cast<uint32_t>(recordSize), msgarea, line);
        if (frame == nullptr) {
            *ppDF = nullptr;
            ErrOut("heapHelpAllocDFrame(pDF==NULL)(0x%lX)", DFMEM_E_OUTOFMEMORY);
            TraceProblem("dframe_alloc_failed", nullptr, nullptr, recordSize, 0, 0, msgarea, line,
                         "unable to allocate DFrame header");
            return DFMEM_E_OUTOFMEMORY;
        }
    }
    forgetOldData(frame, msgarea, line); // 2
    if (dataSize != 0) {                 // 3
        if (localOnly == 0) {            // 4
            placeInPool(frame, dataSize, msgarea, line);
        }
        if (frame->lpData == nullptr && !placeLocally(frame, dataSize, msgarea, line)) { // 5
            ErrOut("LocalHeap:  DFrame failed request size = %ld.", static_cast<uint32_t>(dataSize));
            TraceProblem("dframe_local_alloc_failed", frame, nullptr, dataSize, 0, 0, msgarea, line,
                         "LHEAP_Alloc returned NULL");
            freePDFRAME(&frame, msgarea, line);
            *ppDF = nullptr;
            return DFMEM_E_OUTOFMEMORY;
        }
    }
    if (frame->lpData != nullptr) { // 6
        frame->dwSize = static_cast<uint32_t>(recordSize);
        frameStampAttach(frame);
    }
    *ppDF = frame; // 7
    return 0;
}

int32_t heapHelpFreeDFrame(PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    const DFRAME *const frame = *ppDF;
    if (frame == nullptr) {
        ErrOut("heapHelpFreeDFrame called with NULL pDF");
        TraceProblem("dframe_free_null", nullptr, nullptr, 0, 0, 0, msgarea, line,
                     "heapHelpFreeDFrame called with NULL pDF");
        return -1;
    }
    if (frameOverwritten(frame)) {
        ErrOut("heapHelpFreeDFrame: buffer overwrite detected (used=%d, length=%d)", frame->dwBytesUsed,
               frame->dwBufferLength);
        TraceProblem("dframe_free_overwrite", frame, frame->lpData, frame->dwBytesUsed, frame->dwBufferLength, 0,
                     msgarea, line, "dwBytesUsed exceeds dwBufferLength");
    }
    int32_t result = 0;
    if (frame->lpData != nullptr && !frameIsCustom(frame) && !frameReleaseData(frame, msgarea, line)) {
        ErrFmtOut(QX_WARNING, 0, 0, "WARNING(dfmem): %s\n", "Unable to free DFrame allocation! ");
        ErrOut("NO-Free(0x%08lX-%ld) ", static_cast<uint32_t>(frameData(frame)), frame->dwBufferLength);
        TraceProblem("dframe_data_free_missing", frame, frame->lpData, 0, frame->dwBufferLength, 0, msgarea, line,
                     "DFrame data was not found in phys or local heap");
        result = -2;
    }
    freePDFRAME(ppDF, msgarea, line); // the header goes even when the data wasn't found
    return result;
}

} // namespace brenvole
