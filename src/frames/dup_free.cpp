// DFRAME_DUP_FREE: the destination frees its own data and becomes a duplicate of the source, which shares the
// source's buffer by reference. A buffer whose references no heap can count is copied instead.
#include "frames.h"

#include "local/local_heap.h"
#include "trace/trace.h"

namespace brenvole {

namespace {

// What is copied in both cases; dwRefCount and lpLink stay.
void copyHeader(PDFRAME destination, const DFRAME *source) {
    destination->dwFlags = source->dwFlags;
    destination->dwAttachMark = source->dwAttachMark;
    frameCopyBody(destination, source);
    destination->lpTail = nullptr;
    destination->dwTrailA = source->dwTrailA;
    destination->dwAttachValue = source->dwAttachValue;
    destination->dwTrailB = source->dwTrailB;
    destination->dwCreateMark = source->dwCreateMark;
    destination->dwBytesUsed = source->dwBytesUsed;
    destination->qwTrailC = source->qwTrailC;
    destination->dwTrailD = source->dwTrailD;
    destination->dwTrailE = source->dwTrailE;
    destination->dwTrailF = source->dwTrailF;
    destination->dwTrailG = source->dwTrailG;
    destination->dwTrailH = source->dwTrailH;
    destination->dwTrailI = source->dwTrailI;
    destination->wTrailJ = source->wTrailJ;
}

void copySharingHeader(PDFRAME destination, const DFRAME *source) {
    copyHeader(destination, source);
    destination->dwBufferLength = source->dwBufferLength;
    if (source->dwSize < DFRAME_SIZE) {
        destination->dwSize = DFRAME_SIZE;
    }
}

void copyCustomHeader(PDFRAME destination, const DFRAME *source) {
    copyHeader(destination, source);
    destination->dwFlags &= ~DFRAME_FLAG_CUSTOM;
    destination->dwSize = frameCopySize(source);
}

// Steps of the copying case: 1, 2 refusals; 3 a frame; 4 none to be had; 5 the header; 6 the bytes; 7 the end.
uint64_t dupCustom(const DFRAME *source, PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    if (*ppDF != nullptr) { // 1
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_DUP_FREE|SrcNotAnyHeap(0x%lX)");
    }
    // 2; a source without a length gives a frame without data, which has no place for the bytes
    if (source->dwBytesUsed != 0 && (source->lpData == nullptr || source->dwBufferLength == 0)) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_DUP_FREE|SrcNoData(0x%lX)");
    }
    const uint32_t status =
        heapHelpAllocDFrame(ppDF, frameCopySize(source), source->dwBufferLength, 0, msgarea, line); // 3
    PDFRAME const destination = *ppDF;
    if (destination == nullptr || status != 0 ||
        (source->dwBufferLength != 0 && destination->lpData == nullptr)) { // 4
        if (destination != nullptr) {
            heapHelpFreeDFrame(ppDF, msgarea, line);
        }
        *ppDF = nullptr;
        return frameRefuse(DFMEM_E_OUTOFMEMORY, "DFRAME_DUP_FREE|CopyAllocFailed(0x%lX)");
    }
    copyCustomHeader(destination, source); // 5
    if (source->dwBytesUsed != 0) {        // 6; the caller's buffer may lie in a block all the same
        const DataPlace place = framePlace(source);
        frameCopyUsed(destination->lpData, destination->dwBufferLength, source,
                      frameBeyondBlock(source, place) ? DataPlace{} : place);
    }
    return 0; // 7
}

// A source that neither heap knows: the destination gets a copy after all. A null lpData is all that tells of a
// failure. Where there is nothing to be read, no bytes are used.
void copyForeignData(PDFRAME destination, const DFRAME *source, const char *msgarea, uint32_t line) {
    destination->lpData = LHEAP_Alloc(source->dwBufferLength, destination, msgarea, line);
    if (source->lpData == nullptr) {
        destination->dwBytesUsed = 0;
    } else if (destination->lpData != nullptr) {
        frameCopyUsed(destination->lpData, destination->dwBufferLength, source, DataPlace{});
    }
}

// Steps of the sharing case: 1 a header, if there is none; 2 the old data goes; 3 the header's fields; 4 the buffer;
// 5 the reference to it.
uint64_t dupShared(const DFRAME *source, PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    PDFRAME destination = *ppDF;
    if (destination == nullptr) { // 1
        destination = allocPDFRAMEForBody(frameCopySize(source), msgarea, line);
        if (destination == nullptr) {
            TraceProblem("dupfree_dframe_alloc_failed", nullptr, nullptr, frameCopySize(source), 0, 0, msgarea, line,
                         "DFrameDupFree unable to allocate DFrame header");
            return frameRefuse(DFMEM_E_OUTOFMEMORY, "DFRAME_DUP_FREE2|pDF==NULL(0x%lX)");
        }
    } else if (destination->lpData != nullptr) { // 2
        frameReleaseData(destination, msgarea, line);
    }
    copySharingHeader(destination, source); // 3
    *ppDF = destination;                    // 4
    destination->lpData = source->lpData;
    const DataPlace place = framePlace(source); // 5; asked behind step 2, which may have changed it
    if (!place.known()) {
        copyForeignData(destination, source, msgarea, line);
        return 0;
    }
    const int32_t result = frameAddRefData(source, place, msgarea, line, "DFrameDupFree local addref");
    if (result == -1) {
        freePDFRAME(ppDF, msgarea, line); // sets it to null
    }
    return static_cast<uint32_t>(result); // 32 bits
}

} // namespace

uint64_t commandDupFree(uintptr_t param2, PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    if (ppDF == nullptr) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_DUP_FREE|pDF==NULL(0x%lX)");
    }
    const auto *const pSource = reinterpret_cast<const PDFRAME *>(param2);
    if (pSource == nullptr) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_DUP_FREE|Src==NULL(0x%lX)");
    }
    const DFRAME *const source = *pSource;
    if (source == nullptr) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_DUP_FREE|SrcDFrame==NULL(0x%lX)");
    }
    if (*ppDF == source) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_DUP_FREE|SameDFrame(0x%lX)");
    }
    frameReportOverwrite(source, "DFrameDupFree memory overwrite");
    if (*ppDF != nullptr && frameIsCustom(*ppDF)) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_DUP_FREE|DestNotAnyHeap(0x%lX)");
    }
    return frameIsCustom(source) ? dupCustom(source, ppDF, msgarea, line) : dupShared(source, ppDF, msgarea, line);
}

} // namespace brenvole
