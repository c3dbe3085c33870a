// DFRAME_SWAP: two frames exchange their contents. In one heap the buffers change owners and no byte moves; across
// heaps the bytes go through a temporary, if both fit.
#include "frames.h"

#include "local/dfmem_lock.h"
#include "local/local_heap.h"
#include "trace/trace.h"
#include "util/guard.h"

#include <algorithm>
#include <cstdlib>

namespace brenvole {

namespace {

struct Swapping {
    PDFRAME source;
    PDFRAME target;
    bool made; // the target is new
    const char *msgarea;
    uint32_t line;
};

// Step 2. The source's heap comes first, then the other one.
bool makeTarget(Swapping &swapping, int64_t least) {
    const DFRAME *const source = swapping.source;
    const auto size = static_cast<uint64_t>(std::max<int64_t>(least, source->dwBufferLength));
    const uint32_t localOnly = frameHeap(source) != nullptr ? 0 : 1;
    swapping.made = true;
    for (const uint32_t local : {localOnly, 1 - localOnly}) {
        if (swapping.target == nullptr) {
            heapHelpAllocDFrame(&swapping.target, frameCopySize(source), size, local, swapping.msgarea,
                                swapping.line);
        }
    }
    return swapping.target != nullptr;
}

// Step 3. A target without data gets a buffer in the source's heap, and in no other.
bool attachBuffer(const Swapping &swapping, int64_t least) {
    PDFRAME const target = swapping.target;
    if (least > 0 && least > int64_t{target->dwBufferLength}) {
        target->dwBufferLength = static_cast<uint32_t>(least);
    }
    return frameAllocBuffer(target, frameHeap(swapping.source), swapping.msgarea, swapping.line);
}

void exchangeBuffers(PDFRAME source, PDFRAME target) {
    uint8_t *const data = source->lpData;
    const uint32_t length = source->dwBufferLength;
    source->lpData = target->lpData;
    source->dwBufferLength = target->dwBufferLength;
    target->lpData = data;
    target->dwBufferLength = length;
}

// Both in the pool.
uint64_t exchangeOwners(const Swapping &swapping, ::DFHEAP *heap) {
    PDFRAME const source = swapping.source;
    PDFRAME const target = swapping.target;
    const auto low = [](const void *pointer) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer)); };
    if (DFHEAP_SwapRefTrace(heap, frameData(source), reinterpret_cast<uintptr_t>(source), frameData(target),
                            reinterpret_cast<uintptr_t>(target), swapping.msgarea, swapping.line) != 0) {
        ErrOut("NoSwap DFrame DFHEAP Source(%08X %08X %s) Target(%08X %08X %s)", low(source), low(source->lpData),
               "Heap", low(target), low(target->lpData), "Heap");
        return frameRefuse(DFMEM_E_FAILED, "NoSwap DFrame DFHEAP(0x%lX)");
    }
    exchangeBuffers(source, target);
    return 0;
}

void traceOwner(const Swapping &swapping, const PHALLOC *descriptor, const char *detail) {
    TraceSwapOwner("local_swapref_owner", "local", tracePointer(descriptor->pOwner), LHEAP_DataStart(descriptor),
                   descriptor->lRefCount, swapping.msgarea, swapping.line, detail);
}

// Both in the local heap. Each count stays with its frame, each owner follows the buffer. What is caught under the
// lock is dropped, and the buffers change frames all the same.
void exchangeDescriptors(const Swapping &swapping, PHALLOC *ofSource, PHALLOC *ofTarget) {
    qxOSEnterCriticalSection(&dfmemLock);
    qxGuarded([&] {
        const int32_t count = ofSource->lRefCount;
        ofSource->lRefCount = ofTarget->lRefCount;
        ofTarget->lRefCount = count;
        ofTarget->pOwner = reinterpret_cast<uintptr_t>(swapping.source);
        ofSource->pOwner = reinterpret_cast<uintptr_t>(swapping.target);
        traceOwner(swapping, ofTarget, "DFrameSwap local target");
        traceOwner(swapping, ofSource, "DFrameSwap local source");
    });
    qxOSLeaveCriticalSection(&dfmemLock);
    exchangeBuffers(swapping.source, swapping.target);
}

uint64_t refuseBytes() { return frameRefuse(DFMEM_E_FAILED, "NoSwap DFrame LHEAP(0x%lX)"); }

// Steps of the byte exchange: 1 one way; 2 both have to fit; 3 a temporary; 4 three copies; 5 it goes. Nothing is
// written where a pointer has been moved beyond its block.
uint64_t exchangeBytes(const Swapping &swapping, const DataPlace &ofSource, const DataPlace &ofTarget) {
    constexpr uint64_t kSlack = 512; // bytes that the temporary has beyond its content
    const DFRAME *const source = swapping.source;
    const DFRAME *const target = swapping.target;
    if (frameBeyondBlock(target, ofTarget) || frameBeyondBlock(source, ofSource)) {
        return refuseBytes();
    }
    if (swapping.made || target->dwBytesUsed == 0) { // 1
        frameCopyUsed(target->lpData, target->dwBufferLength, source, ofSource);
        return 0;
    }
    if (source->dwBytesUsed >= target->dwBufferLength || target->dwBytesUsed >= source->dwBufferLength) { // 2
        return refuseBytes();
    }
    auto *const held = static_cast<uint8_t *>( // 3, in 64 bits
        std::malloc(std::max(+source->dwBytesUsed, +target->dwBytesUsed) + kSlack));
    if (held == nullptr) {
        return frameRefuse(DFMEM_E_OUTOFMEMORY, "NoSwap DFrame Temporary(0x%lX)");
    }
    const uint32_t count = frameCopyUsed(held, target->dwBufferLength, source, ofSource); // 4
    frameCopyUsed(source->lpData, source->dwBufferLength, target, ofTarget);
    qxOSCopyMemorySafeFast(target->lpData, held, count, target->dwBufferLength);
    std::free(held); // 5
    return 0;
}

// Step 5.
uint64_t exchangeData(const Swapping &swapping) {
    const DataPlace source = framePlace(swapping.source);
    const DataPlace target = framePlace(swapping.target);
    if (source.heap != nullptr && target.heap != nullptr) {
        return exchangeOwners(swapping, source.heap);
    }
    if (source.local == nullptr || target.local == nullptr) {
        return exchangeBytes(swapping, source, target);
    }
    exchangeDescriptors(swapping, source.local, target.local);
    return 0;
}

// What a header hands on beside its body. Not dwRefCount, lpLink, dwSize, dwTrailA, B and E, wTrailJ.
struct Words {
    uint32_t flags;
    uint32_t attachMark;
    uint32_t attachValue;
    uint32_t createMark;
    uint32_t trailD;
    uint64_t trailC;
};

Words wordsOf(const DFRAME *frame) {
    return {frame->dwFlags,      frame->dwAttachMark, frame->dwAttachValue,
            frame->dwCreateMark, frame->dwTrailD,     frame->qwTrailC};
}

// Neither comes out with a tail.
void setWords(PDFRAME frame, const Words &words) {
    frame->lpTail = nullptr;
    frame->dwFlags = words.flags & ~DFRAME_FLAG_TAIL;
    frame->dwAttachMark = words.attachMark;
    frame->dwAttachValue = words.attachValue;
    frame->dwCreateMark = words.createMark;
    frame->dwTrailD = words.trailD;
    frame->qwTrailC = words.trailC;
}

// Step 7. A new target has nothing to give, so the source keeps its header, lpTail included, but for the tail's flag.
// Four trail words go one way, also where the rest is exchanged.
void exchangeHeaders(const Swapping &swapping) {
    PDFRAME const source = swapping.source;
    PDFRAME const target = swapping.target;
    target->dwTrailF = source->dwTrailF;
    target->dwTrailG = source->dwTrailG;
    target->dwTrailH = source->dwTrailH;
    target->dwTrailI = source->dwTrailI;
    const Words ofSource = wordsOf(source);
    const Words ofTarget = wordsOf(target);
    if (swapping.made) {
        frameCopyBody(target, source);
        setWords(target, ofSource);
        source->dwFlags &= ~DFRAME_FLAG_TAIL;
        return;
    }
    char held[kFrameBodyBytes];
    CopyMemoryFast(held, frameBody(source), kFrameBodyBytes);
    frameCopyBody(source, target);
    CopyMemoryFast(frameBody(target), held, kFrameBodyBytes);
    setWords(source, ofTarget);
    setWords(target, ofSource);
}

// Steps 5 to 7.
uint64_t exchange(const Swapping &swapping) {
    const uint64_t refused = exchangeData(swapping); // 5
    if (refused != 0) {
        return refused;
    }
    const uint32_t used = swapping.source->dwBytesUsed; // 6
    swapping.source->dwBytesUsed = swapping.target->dwBytesUsed;
    swapping.target->dwBytesUsed = used;
    exchangeHeaders(swapping); // 7
    return 0;
}

} // namespace

// Steps: 1 tests; 2 a target, if there is none; 3 a buffer, if it has none; 4 nothing to be exchanged; 5 the buffers;
// 6 dwBytesUsed; 7 the headers.
uint64_t commandSwap(int64_t param1, uintptr_t param2, PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    if (ppDF == nullptr) { // 1
        return frameRefuse(DFMEM_E_POINTER, "DFRAME_SWAP|pDF==NULL(0x%lX)");
    }
    const auto *const pSource = reinterpret_cast<const PDFRAME *>(param2);
    if (pSource == nullptr) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_SWAP|SrcParam==NULL(0x%lX)");
    }
    if (*ppDF != nullptr && frameIsCustom(*ppDF)) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_SWAP|NotAnyHeap(0x%lX)");
    }
    PDFRAME const source = *pSource;
    if (source == nullptr) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_SWAP|pDFSrc==NULL(0x%lX)");
    }
    frameReportOverwrite(source, "DFrameSwap memory overwrite");
    if (frameIsCustom(source)) {
        return frameRefuse(DFMEM_E_INVALIDARG, "DFRAME_SWAP|SrcNOTBrenvole(0x%lX)");
    }
    Swapping swapping{.source = source, .target = *ppDF, .made = false, .msgarea = msgarea, .line = line};
    if (swapping.target == nullptr) { // 2
        if (!makeTarget(swapping, param1)) {
            *ppDF = nullptr;
            return frameRefuse(DFMEM_E_OUTOFMEMORY, "DFRAME_SWAP2|pDF==NULL(0x%lX)");
        }
        *ppDF = swapping.target;
    } else if (swapping.target->lpData == nullptr && !attachBuffer(swapping, param1)) { // 3
        freePDFRAME(ppDF, msgarea, line);                                               // sets it to null
        return ErrMsgOut(DFMEM_E_OUTOFMEMORY, "pDF->lpData==NULL", 0, 0, 0, 0);
    }
    if (swapping.target->lpData == nullptr || source->lpData == nullptr) { // 4
        return 0;
    }
    return exchange(swapping);
}

} // namespace brenvole
