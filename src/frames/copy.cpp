// DFRAME_COPY: a second frame with the header and the bytes of another one. One that is made here shares nothing with
// it.
//
// A destination made here takes over a moved data pointer: the bytes in front of it are copied too.
//
// The source is only read, so any number of threads may copy from one frame at the same time.
#include "frames.h"

#include "local/local_heap.h"

#include <algorithm>
#include <cstring>

namespace brenvole {

namespace {

struct Copying {
    const DFRAME *source;
    PDFRAME *ppDF; // the destination
    DataPlace place;
    uint32_t newLength; // of a buffer made here
    const char *msgarea;
    uint32_t line;
    bool made = false;   // the destination is new
    uint64_t offset = 0; // of the data pointer in its block; 0 for an existing destination
};

void clearLink(PDFRAME frame) { std::memset(frame->lpLink, 0, sizeof frame->lpLink); }

// Step 3. A full source leaves room to go on writing.
uint32_t lengthFor(const DFRAME *source) {
    constexpr uint32_t kSound = 19200; // fewer bytes than this are a packet of sound, and grow by little
    constexpr uint32_t kSoundRoom = 16;
    constexpr uint32_t kPictureRoom = 4096;
    const uint32_t length = source->dwBufferLength;
    if (source->dwBytesUsed != length) {
        return length;
    }
    return length + (length < kSound ? kSoundRoom : kPictureRoom);
}

// Step 4.2. Where the block of the source's data starts. A custom buffer that lies in the pool counts from its
// block's start, one inside a local block doesn't, and neither does a pointer beyond its block.
uint64_t blockStart(const Copying &copying) {
    uint64_t data = frameData(copying.source);
    if (copying.place.heap != nullptr) {
        DFHEAP_FixAllocTrace(copying.place.heap, &data, copying.msgarea, copying.line);
    } else if (copying.place.local != nullptr && !frameBeyondBlock(copying.source, copying.place)) {
        data = reinterpret_cast<uintptr_t>(LHEAP_DataStart(copying.place.local));
    }
    return data;
}

// Step 4. False if there is no memory.
bool makeDestination(Copying &copying) {
    copying.made = true;
    copying.offset = frameData(copying.source) - blockStart(copying);
    copying.newLength += static_cast<uint32_t>(copying.offset);
    heapHelpAllocDFrame(copying.ppDF, frameCopySize(copying.source), copying.newLength,
                        copying.place.heap != nullptr ? 0 : 1, copying.msgarea, copying.line);
    if (*copying.ppDF == nullptr) {
        return false;
    }
    clearLink(*copying.ppDF);
    return true;
}

// Step 5. A buffer that is too small goes, unless no heap knows it. False for a custom one.
bool dropSmallBuffer(const Copying &copying) {
    PDFRAME const destination = *copying.ppDF;
    if (destination->lpData == nullptr || destination->dwBufferLength >= copying.source->dwBytesUsed) {
        return true;
    }
    if (frameIsCustom(destination)) {
        return false;
    }
    if (frameReleaseData(destination, copying.msgarea, copying.line)) {
        destination->lpData = nullptr;
        destination->dwBufferLength = 0;
        destination->dwBytesUsed = 0;
    }
    return true;
}

// Step 8. What isn't named stays as it is: dwRefCount, lpLink, dwSize, lpData, dwBufferLength, dwTrailE.
void copyHeader(PDFRAME destination, const DFRAME *source) {
    const uint32_t custom = destination->dwFlags & DFRAME_FLAG_CUSTOM;
    destination->dwFlags = (source->dwFlags & ~DFRAME_FLAG_CUSTOM) | custom;
    destination->dwAttachMark = source->dwAttachMark;
    frameCopyBody(destination, source);
    destination->lpTail = nullptr;
    destination->dwTrailA = source->dwTrailA;
    destination->dwAttachValue = source->dwAttachValue;
    destination->dwTrailB = source->dwTrailB;
    destination->dwCreateMark = source->dwCreateMark;
    destination->dwBytesUsed = 0;
    destination->qwTrailC = source->qwTrailC;
    destination->dwTrailD = source->dwTrailD;
    destination->dwTrailF = source->dwTrailF;
    destination->dwTrailG = source->dwTrailG;
    destination->dwTrailH = source->dwTrailH;
    destination->dwTrailI = source->dwTrailI;
    destination->wTrailJ = source->wTrailJ;
}

// Step 12. No byte beyond the source's block is read, whatever the frame claims: `there` are left from its pointer
// on.
void copyBytes(const Copying &copying, uint64_t there) {
    const DFRAME *const source = copying.source;
    const DFRAME *const destination = *copying.ppDF;
    const uint64_t used = std::min<uint64_t>(source->dwBytesUsed, there);
    const uint64_t length = source->dwBufferLength;
    uint64_t count = std::min<uint64_t>(used, copying.newLength);
    if (copying.made) {
        count = copying.offset + std::min(used, length);
    }
    const uint64_t capacity = std::min<uint64_t>(destination->dwBufferLength, length + copying.offset);
    qxOSCopyMemorySafeFast(destination->lpData, source->lpData - copying.offset,
                           static_cast<uint32_t>(std::min<uint64_t>(count, UINT32_MAX)),
                           static_cast<uint32_t>(capacity));
}

// Steps 13 and 14. dwBufferLength counts from lpData, so it gives up what is in front of it.
void finishData(const Copying &copying) {
    PDFRAME const destination = *copying.ppDF;
    destination->dwBytesUsed = copying.source->dwBytesUsed;
    destination->dwSize = std::max(destination->dwSize, DFRAME_SIZE);
    frameStampAttach(destination);
    clearLink(destination);
    destination->lpData += copying.offset;
    destination->dwBufferLength -= static_cast<uint32_t>(copying.offset);
}

// A pointer that was moved far inside a block of the pool wouldn't be found so far inside a local one, where the
// destination came to lie if the pool is full; and 32 bits can't tell of every block. Then the destination gets the
// bytes from the pointer on.
void giveUpFarOffset(Copying &copying) {
    const DFRAME *const destination = *copying.ppDF;
    if (copying.offset > destination->dwBufferLength ||
        (copying.offset > kLocalReach && frameHeap(destination) == nullptr)) {
        copying.offset = 0;
    }
}

// Steps 9 to 14. False if there is no memory.
bool copyData(Copying &copying) {
    PDFRAME const destination = *copying.ppDF;
    if (copying.source->dwBufferLength == 0) { // 9
        return true;
    }
    if (destination->lpData == nullptr) { // 10
        destination->dwBufferLength = copying.newLength;
        if (!frameAllocBuffer(destination, copying.place.heap, copying.msgarea, copying.line)) {
            return false;
        }
    }
    if (copying.source->dwBytesUsed == 0 || copying.source->lpData == nullptr || // 11; nothing is read from a null,
        frameBeyondBlock(copying.source, copying.place)) {                       // nor beyond a block
        return true;
    }
    giveUpFarOffset(copying);
    copyBytes(copying, frameBytesThere(copying.source, copying.place)); // 12
    finishData(copying);                                                // 13, 14
    return true;
}

// Steps 4 to 14.
uint64_t copyFrame(Copying &copying) {
    if (*copying.ppDF == nullptr && !makeDestination(copying)) { // 4
        return frameRefuse(DFMEM_E_OUTOFMEMORY, "DFRAME_COPY2|pDF==NULL(0x%lX)");
    }
    if (!dropSmallBuffer(copying)) { // 5
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_COPY|CustomTooSmall(0x%lX)");
    }
    PDFRAME const destination = *copying.ppDF;
    if (copying.source->dwSize < DFRAME_SIZE) { // 6
        destination->dwSize = DFRAME_SIZE;
    }
    if (destination->lpLink[0] != nullptr || destination->lpLink[1] != nullptr ||
        destination->lpLink[2] != nullptr) { // 7
        ErrFmtOut(QX_ERROR, 0, 0, "ERROR(dfmem): %s\n", "dfmem:COPY-Double Listed");
    }
    copyHeader(destination, copying.source);                             // 8
    if (!copyData(copying)) {                                            // 9 to 14
        heapHelpFreeDFrame(copying.ppDF, copying.msgarea, copying.line); // sets it to null
        ErrFmtOut(QX_WARNING, 0, 0, "WARNING(dfmem): %s\n", "CopyReAlloc-pDF==NULL");
        return frameWiden(DFMEM_E_OUTOFMEMORY);
    }
    return 0;
}

} // namespace

// Steps: 1 refusals; 2 the overwrite test; 3 the new length; 4 a destination, if there is none; 5 a buffer that is
// too small; 6 dwSize; 7 a listed destination; 8 the header; 9 no data; 10 a buffer; 11 no bytes; 12 the bytes;
// 13 the stamps; 14 a moved pointer; 15 the end.
uint64_t commandCopy(uintptr_t param2, PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    const auto *const pSource = reinterpret_cast<const PDFRAME *>(param2);
    if (pSource == nullptr) { // 1
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_COPY|pDFSrcParam==NULL(0x%lX)");
    }
    if (ppDF == nullptr) {
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_COPY|pDFDstParam==NULL(0x%lX)");
    }
    const DFRAME *const source = *pSource;
    if (source == nullptr) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_COPY|pDFSrc==NULL(0x%lX)");
    }
    if (frameOverwritten(source)) { // 2
        ErrOut("Warning: DFrameCopy memory overwrite (src=%d, dst=%d) ", source->dwBytesUsed, source->dwBufferLength);
    }
    Copying copying{.source = source,
                    .ppDF = ppDF,
                    .place = frameIsCustom(source) ? DataPlace{frameHeap(source)} : framePlace(source),
                    .newLength = lengthFor(source), // 3
                    .msgarea = msgarea,
                    .line = line};
    return copyFrame(copying); // 4 to 15
}

} // namespace brenvole
