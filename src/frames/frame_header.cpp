// The life of a header: one QXAlloc block, never reused.
#include "frames.h"

#include "local/dfmem_lock.h"
#include "local/live_frames.h"
#include "trace/trace.h"
#include "util/guard.h"
#include "util/hold.h"

#include <algorithm>
#include <cstring>

namespace brenvole {

namespace {

constexpr uint32_t kCountBytes = offsetof(FrameBlock, frame);

// Value of dwCreateMark; unlike the attach stamps it isn't set again.
constexpr uint32_t kCreateMark = 0xFFFFFFFF;

enum class Body { cleared, undefined };

// All of the block but, where it is about to be overwritten, the body, which is nearly all.
void clear(FrameBlock *block, std::size_t bytes, Body body) {
    auto *const start = reinterpret_cast<char *>(block);
    const auto front = static_cast<std::size_t>(frameBody(&block->frame) - start);
    if (body == Body::cleared) {
        std::memset(start, 0, bytes);
    } else {
        std::memset(start, 0, front);
        std::memset(start + front + kFrameBodyBytes, 0, bytes - front - kFrameBodyBytes);
    }
}

// The guarded part of allocPDFRAME: block, clearing, fields, and the count last, so that a fault leaves nothing to
// be taken back. The frame is handed out when it is complete: a block that can't be written is no header.
void makeHeader(uint32_t recordSize, Body body, FrameBlock *volatile &block, PDFRAME volatile &frame) {
    FrameBlock *const made = // a block size that doesn't fit its 32 bits is as good as refused
        recordSize <= UINT32_MAX - kCountBytes ? static_cast<FrameBlock *>(QXAlloc(recordSize + kCountBytes))
                                               : nullptr;
    if (made == nullptr) {
        ErrFmtOut(QX_ERROR, 0, 0, "ERROR(dfmem): %s\n", "Unable to allocate dframe structure");
        return;
    }
    block = made;
    clear(made, std::size_t{recordSize} + kCountBytes, body);
    made->dwRefCount = 1;
    made->frame.dwSize = recordSize;
    made->frame.dwFlags = DFRAME_FLAG_CREATED;
    frameStampAttach(&made->frame);
    made->frame.dwCreateMark = kCreateMark;
    qxOSEnterCriticalSection(&dfmemLock);
    dfmemCount<uint64_t>(dframes, 1);
    dfmemCount<uint64_t>(dframe_bytes, recordSize);
    liveFrameEnter(reinterpret_cast<uintptr_t>(&made->frame));
    frame = &made->frame;
    qxOSLeaveCriticalSection(&dfmemLock);
}

bool hasValidTail(const DFRAME *frame) {
    constexpr uintptr_t kNoTail = 0xFFFFFFFF;
    const auto tail = reinterpret_cast<uintptr_t>(frame->lpTail);
    return (frame->dwFlags & DFRAME_FLAG_TAIL) != 0 && tail != 0 && tail != kNoTail && frame->dwTailLength != 0 &&
           frame->dwTailLength <= DFRAME_TAIL_MAX;
}

} // namespace

uint32_t frameCopySize(const DFRAME *frame) {
    const uint32_t tail = hasValidTail(frame) ? frame->dwTailLength : 0;
    return std::max(+frame->dwSize, DFRAME_SIZE + tail);
}

void frameCopyBody(PDFRAME destination, const DFRAME *source) {
    if (destination != source) { // a frame may be copied onto itself
        CopyMemoryFast(frameBody(destination), frameBody(const_cast<PDFRAME>(source)), kFrameBodyBytes);
    }
}

namespace {

PDFRAME allocHeader(uint32_t size, Body body, const char *msgarea, uint32_t line) {
    const uint32_t recordSize = std::max(size, DFRAME_SIZE);
    FrameBlock *volatile block = nullptr;
    PDFRAME volatile frame = nullptr;
    if (!qxGuarded([&] { makeHeader(recordSize, body, block, frame); }) && frame == nullptr && block != nullptr) {
        qxGuarded([&] { QXFree(block); }); // what was caught is dropped, the block is not
    }
    PDFRAME const whole = frame;
    if (whole != nullptr) {
        whenTracing([&] {
            traceRecordAlloc("dframe", whole, whole, frameBlockOf(whole), size, uint64_t{recordSize} + kCountBytes, 1,
                             msgarea, line, "allocPDFRAME");
        });
    }
    return whole;
}

} // namespace

PDFRAME allocPDFRAME(uint32_t size, const char *msgarea, uint32_t line) {
    return allocHeader(size, Body::cleared, msgarea, line);
}

PDFRAME allocPDFRAMEForBody(uint32_t size, const char *msgarea, uint32_t line) {
    return allocHeader(size, Body::undefined, msgarea, line);
}

int32_t freePDFRAME(PDFRAME *ppDF, const char *msgarea, uint32_t line) {
    if (ppDF == nullptr || *ppDF == nullptr) {
        ErrFmtOut(QX_CAUTION, 0, 0, "CAUTION(dfmem): %s\n", "Lost frame header memory allocation");
        TraceProblem("dframe_free_missing", nullptr, nullptr, 0, 0, 0, msgarea, line,
                     "freePDFRAME called without a frame");
        return -1;
    }
    PDFRAME const frame = *ppDF;
    FrameBlock *const block = frameBlockOf(frame);
    uint32_t left = 0;
    {
        // Test and change are one step: of two threads that drop the last two references, one sees the 1.
        const QXHold hold(dfmemLock);
        left = --block->dwRefCount;
    }
    if (left != 0) {
        TraceRelease("dframe_free", "dframe", frame, frame, static_cast<int32_t>(left), msgarea, line,
                     "freePDFRAME deref");
    } else {
        TraceRelease("dframe_free", "dframe", frame, frame, 0, msgarea, line, "freePDFRAME release");
        const uint32_t recordSize = frame->dwSize;
        liveFrameLeave(reinterpret_cast<uintptr_t>(frame));
        QXFree(block);
        const QXHold hold(dfmemLock);
        dfmemUncount<uint64_t>(dframes, 1);
        dfmemUncount<uint64_t>(dframe_bytes, recordSize);
    }
    *ppDF = nullptr;
    return static_cast<int32_t>(left);
}

uint32_t addRefPDFRAME(PDFRAME frame) {
    const QXHold hold(dfmemLock);
    return ++frameBlockOf(frame)->dwRefCount;
}

} // namespace brenvole
