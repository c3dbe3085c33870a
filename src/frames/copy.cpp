// DFRAME_COPY: a second frame with the header and the bytes of another one. One that is made here shares nothing with
// it.
//
// A destination made here takes over a moved data pointer: the bytes in front of it are copied too. For that, the
// source's pointer stands at the start of its block while the command runs, and is put back on every way out.
#include "frames.h"

#include "local/local_heap.h"

#include <algorithm>
#include <cstring>

namespace brenvole {

namespace {

struct Copying {
    PDFRAME source;
    PDFRAME *ppDF;      // the destination
    bool inPool;        // the source's heap, where a buffer comes from
    uint32_t newLength; // of a buffer made here
    uint8_t *saved;     // the source's data pointer, as the caller has it
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

// Step 4. False if there is no memory.
bool makeDestination(Copying &copying) {
    PDFRAME const source = copying.source;
    copying.made = true;
    // A custom buffer that lies in the pool is brought to its block's start, one inside a local block isn't.
    const bool ask = copying.inPool || !frameIsCustom(source);
    frameDataToStart(source, ask ? framePlace(source) : DataPlace{}, copying.msgarea, copying.line);
    copying.offset = reinterpret_cast<uintptr_t>(copying.saved) - frameData(source);
    copying.newLength += static_cast<uint32_t>(copying.offset);
    heapHelpAllocDFrame(copying.ppDF, frameCopySize(source), copying.newLength, copying.inPool ? 0 : 1,
                        copying.msgarea, copying.line);
    if (*copying.ppDF == nullptr) {
        source->lpData = copying.saved;
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

// Step 12. The source's pointer stands at the start of its block if the destination is new.
void copyBytes(const Copying &copying) {
    const DFRAME *const source = copying.source;
    const DFRAME *const destination = *copying.ppDF;
    const uint64_t used = source->dwBytesUsed;
    const uint64_t length = source->dwBufferLength;
    uint64_t count = std::min<uint64_t>(used, copying.newLength);
    uint64_t capacity = length;
    if (copying.made) {
        count = copying.offset + std::min(used, length);
        capacity = length + copying.offset;
    }
    capacity = std::min<uint64_t>(destination->dwBufferLength, capacity);
    qxOSCopyMemorySafeFast(destination->lpData, source->lpData,
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
    if (copying.offset > destination->dwBufferLength || (copying.offset > kLocalReach && !frameInPool(destination))) {
        copying.source->lpData = copying.saved;
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
        if (!frameAllocBuffer(destination, copying.inPool, copying.msgarea, copying.line)) {
            return false;
        }
    }
    if (copying.source->dwBytesUsed != 0 && copying.source->lpData != nullptr) { // 11; nothing is read from a null
        giveUpFarOffset(copying);
        copyBytes(copying);  // 12
        finishData(copying); // 13, 14
    }
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
    PDFRAME const source = *pSource;
    if (source == nullptr) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_COPY|pDFSrc==NULL(0x%lX)");
    }
    if (frameOverwritten(source)) { // 2
        ErrOut("Warning: DFrameCopy memory overwrite (src=%d, dst=%d) ", source->dwBytesUsed, source->dwBufferLength);
    }
    Copying copying{.source = source,
                    .ppDF = ppDF,
                    .inPool = frameInPool(source),
                    .newLength = lengthFor(source), // 3
                    .saved = source->lpData,
                    .msgarea = msgarea,
                    .line = line};
    const uint64_t result = copyFrame(copying);
    if (copying.made) { // 15; a frame copied onto itself may have lost its buffer
        source->lpData = copying.saved;
    }
    return result;
}

} // namespace brenvole
