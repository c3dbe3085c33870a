// DFRAME_ALLOC, DFRAME_FREE and DFRAME_ADDREF.
#include "frames.h"

#include "trace/trace.h"

#include <cmath>

namespace brenvole {

namespace {

// A frame's buffer is this much larger than asked, so that its content may grow in place.
constexpr double kDataHeadroom = 1.4;

// The size that goes on: cut towards zero to 64 bits, of which the low 32 remain.
uint32_t sizeWithHeadroom(int64_t wanted) {
    constexpr double kBeyondInt64 = 9223372036854775808.0; // 2^63
    const double product = static_cast<double>(wanted) * kDataHeadroom;
    return std::fabs(product) < kBeyondInt64 ? static_cast<uint32_t>(static_cast<int64_t>(product)) : 0;
}

} // namespace

uint64_t commandAlloc(uint32_t command, int64_t param1, uintptr_t param2, PDFRAME *ppDF, const char *msgarea,
                      uint32_t line) {
    if (ppDF == nullptr) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_ALLOC|ppDF==NULL(0x%lX)");
    }
    if (param2 == 0) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_ALLOC|pDF==NULL(0x%lX)");
    }
    if (param1 == 0) {
        return DFMEM_E_INVALIDARG;
    }
    const uint32_t size = sizeWithHeadroom(param1);
    // The local heap goes first where the caller asks for it, and as long as there is no pool.
    if ((command & DFRAME_FLAG_SYSHEAP) != 0 || mainHeap.load() == nullptr) {
        if (heapHelpAllocDFrame(ppDF, param2, size, 1, msgarea, line) == 0) {
            return 0;
        }
        ErrOut("Local Alloc Failed, Brenvole %s", "Failed");
        _DFHEAP_DumpList(mainHeap);
    }
    return frameWiden(heapHelpAllocDFrame(ppDF, param2, size, 0, msgarea, line));
}

uint64_t commandFree(PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    if (ppDF == nullptr) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_FREE|pDF==NULL(0x%lX)");
    }
    const DFRAME *const frame = *ppDF;
    if (frame == nullptr) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_FREE2|*pDF==NULL(0x%lX)");
    }
    if (frameIsCustom(frame)) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_FREE|NotAnyHeap(0x%lX)");
    }
    if (frameOverwritten(frame)) {
        ErrOut("DFrameFree memory overwrite %d %d", frame->dwBytesUsed, frame->dwBufferLength);
    }
    return static_cast<uint32_t>(heapHelpFreeDFrame(ppDF, msgarea, line)); // 32 bits, so -2 has a zero high half
}

uint64_t commandAddRef(PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    PDFRAME const frame = ppDF != nullptr ? *ppDF : nullptr;
    if (frame == nullptr) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_ADDREF|pDF==NULL(0x%lX)");
    }
    if (frameIsCustom(frame)) {
        return DFMEM_E_INVALIDARG;
    }
    if (frame->lpData == nullptr) {
        return frameRefuse(DFMEM_E_OUTOFMEMORY, "pDF->lpData==NULL(0x%lX)");
    }
    frameReportOverwrite(frame, "DFrameAddRef memory overwrite");
    const uint32_t references = addRefPDFRAME(frame);
    TraceTouch("dframe_addref", "dframe", frame, frame, static_cast<int32_t>(references), msgarea, line,
               "DFrameAddRef header");
    const DataPlace place = framePlace(frame);
    if (!place.known()) {
        return frameRefuse(DFMEM_E_FAILED, "Unable to AddRef(0x%lX)");
    }
    return static_cast<uint32_t>(frameAddRefData(frame, place, msgarea, line, "DFrameAddRef local")); // -1 in 32 bits
}

} // namespace brenvole
