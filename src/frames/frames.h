/** @file
 *  What the units of the front end share: the life of headers and of their data, and the pool. `msgarea` and
 *  `line` name the call site; they are handed on everywhere and decide nothing. */
#ifndef BRENVOLE_FRAMES_H
#define BRENVOLE_FRAMES_H

#include "local/counters.h"
#include "phys/heap.h"

#include <brenvole/dframe.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace brenvole {

/** One QXAlloc block: the count of references to the header, which callers don't see, and the record. A larger
 *  record goes on behind it. dwRefCount is at least 1 and changes under dfmemLock only. */
struct FrameBlock {
    uint32_t dwRefCount;
    DFRAME frame;
};

static_assert(sizeof(DFRAME) == DFRAME_SIZE && alignof(DFRAME) == 4);
static_assert(offsetof(DFRAME, dwSize) == 24 && offsetof(DFRAME, dwFlags) == 28);
static_assert(offsetof(DFRAME, dwAttachMark) == 32 && offsetof(DFRAME, abBodyHead) == 36);
static_assert(offsetof(DFRAME, lpTail) == 8272 && offsetof(DFRAME, dwTailLength) == 8280);
static_assert(offsetof(DFRAME, abBodyRest) == 8284 && offsetof(DFRAME, dwTrailA) == 8412);
static_assert(offsetof(DFRAME, dwAttachValue) == 8416 && offsetof(DFRAME, dwCreateMark) == 8424);
static_assert(offsetof(DFRAME, lpData) == 8428 && offsetof(DFRAME, dwBufferLength) == 8436);
static_assert(offsetof(DFRAME, dwBytesUsed) == 8440 && offsetof(DFRAME, qwTrailC) == 8444);
static_assert(offsetof(DFRAME, dwTrailD) == 8452 && offsetof(DFRAME, wTrailJ) == 8476);
static_assert(offsetof(FrameBlock, frame) == 4 && sizeof(FrameBlock) == 4 + DFRAME_SIZE);

/** @name The main pool
 *  Under no lock: DFRAME_RESET and DFRAME_CLOSE don't run beside other commands. The three that change without
 *  them, when several frames at once need the pool first, are atomics. The four states stand in main_pool.cpp.
 *  @{ */
extern std::atomic<::DFHEAP *> mainHeap;   // the heap over the pool, or null
extern std::atomic<void *> mainPool;       // base of the region, or null
extern std::atomic<uint64_t> mainPoolSize; // of the region; without one, what is tried next. In bytes.
extern uint32_t mainGranularity;           // for DFHEAP_Create, as is mainSmallest
extern uint32_t mainSmallest;

/** Takes a region from the system. A size that is refused is lowered in steps.
 *  @param size  in and out: bytes, at most 0xFFFFFF000; the last size tried. Always mainPoolSize.
 *  @return the region's base, or null
 *  @note One call of the system for each step, so a refused pool of n bytes costs up to n / 32768 of them. */
void *mainPoolAlloc(std::atomic<uint64_t> &size);

/** Makes pool and heap unless there is a pool.
 *  @param heap  out: the pool's heap, read once
 *  @return false if one of both couldn't be had, which is reported. A pool without a heap, from an earlier failure,
 *          is a pool; `heap` is null then. */
bool mainPoolNeed(::DFHEAP *&heap);

/** Ends heap and pool when the library leaves the process. Resets no figure. If other threads may still be
 *  inside, because the process is in exit(), the heap is reported and left as it is for them. */
void mainPoolDetach();
/** @} */

/** The block around a frame. */
inline FrameBlock *frameBlockOf(PDFRAME frame) {
    return reinterpret_cast<FrameBlock *>(reinterpret_cast<char *>(frame) - offsetof(FrameBlock, frame));
}

inline uintptr_t frameData(const DFRAME *frame) { return reinterpret_cast<uintptr_t>(frame->lpData); }

/** True if the data buffer is the caller's. */
inline bool frameIsCustom(const DFRAME *frame) { return (frame->dwFlags & DFRAME_FLAG_CUSTOM) != 0; }

/** True if the frame says that more bytes are used than its buffer has. Reported by the commands, never fatal. */
inline bool frameOverwritten(const DFRAME *frame) { return frame->dwBytesUsed > frame->dwBufferLength; }

/** The usual report of it. */
void frameReportOverwrite(const DFRAME *frame, const char *text);

/** The stamps that a header gets at its creation and whenever data is attached. Callers know both values. */
inline constexpr uint32_t kAttachMark = 1;
inline constexpr uint32_t kAttachValue = 65520;
inline void frameStampAttach(PDFRAME frame) {
    frame->dwAttachMark = kAttachMark;
    frame->dwAttachValue = kAttachValue;
}

/** The refusal of a command: logs `text`, which takes the status as its one argument.
 *  @return the status in its plain form */
uint64_t frameRefuse(uint32_t status, const char *text);

/** The widened form of a status: sign-extended to 64 bits. */
inline uint64_t frameWiden(uint32_t status) { return static_cast<uint64_t>(static_cast<int32_t>(status)); }

/** The record size that a frame needs to take over another one's header, and its tail if that is valid. */
uint32_t frameCopySize(const DFRAME *frame);

/** The opaque body in one piece, with lpTail and dwTailLength, which lie in its midst. */
inline constexpr uint32_t kFrameBodyBytes = offsetof(DFRAME, dwTrailA) - offsetof(DFRAME, abBodyHead);
static_assert(kFrameBodyBytes == 8376);
inline char *frameBody(PDFRAME frame) { return reinterpret_cast<char *>(frame) + offsetof(DFRAME, abBodyHead); }
void frameCopyBody(PDFRAME destination, const DFRAME *source);

/** Makes a header without data.
 *  @param size  record size, raised to DFRAME_SIZE; above 0xFFFFFFFB it is refused like a failed QXAlloc
 *  @return the frame, or null */
PDFRAME allocPDFRAME(uint32_t size, const char *msgarea, uint32_t line);

/** The same for a caller that copies another frame's body into it at once: the body is left undefined. */
PDFRAME allocPDFRAMEForBody(uint32_t size, const char *msgarea, uint32_t line);

/** Drops one reference to the header and sets *ppDF to null.
 *  @return references left; 0 if the header is gone; -1 if there was no frame */
int32_t freePDFRAME(PDFRAME *ppDF, const char *msgarea, uint32_t line);

/** Adds one reference to the header.
 *  @return references there are now */
uint32_t addRefPDFRAME(PDFRAME frame);

/** Gives a frame a data buffer, and makes the frame if *ppDF is null. An existing frame's old data is released
 *  first.
 *  @param recordSize  for a new header raised to DFRAME_SIZE; its low 32 bits count
 *  @param dataSize    0 for a frame without data
 *  @param localOnly   not 0: the local heap alone may serve
 *  @return 0 or DFMEM_E_OUTOFMEMORY; then *ppDF is null and its reference dropped */
uint32_t heapHelpAllocDFrame(PDFRAME *ppDF, uint64_t recordSize, uint64_t dataSize, uint32_t localOnly,
                             const char *msgarea, uint32_t line);

/** Drops one reference to the data and one to the header.
 *  @return 0; -1 for no frame; -2 if the data was found in no heap, then the header has lost its reference all
 *  the same */
int32_t heapHelpFreeDFrame(PDFRAME *ppDF, const char *msgarea, uint32_t line);

/** @name Where data lies
 *  Decided here for all commands, and stored nowhere.
 *  @{ */
struct DataPlace {
    ::DFHEAP *heap = nullptr; // the pool's, if the data lies there; read once for the whole command
    PHALLOC *local = nullptr; // the descriptor, if it lies in a local block
    bool known() const { return heap != nullptr || local != nullptr; }
};

/** What commands answer, -1, if neither heap knows the pointer. */
inline constexpr uint64_t kFrameNowhere = UINT64_MAX;

/** The pool's heap if lpData points into the pool's region, else null. Cheap, where framePlace may cost system calls.
 */
inline ::DFHEAP *frameHeap(const DFRAME *frame) {
    ::DFHEAP *const heap = mainHeap;
    return DFHEAP_Contains(heap, frameData(frame)) != 0 ? heap : nullptr;
}
DataPlace framePlace(const DFRAME *frame);

/** True if lpData has been moved beyond the end of the local block that the lookup finds for it. No byte there is the
 *  frame's. */
bool frameBeyondBlock(const DFRAME *frame, const DataPlace &place);

/** Bytes from lpData to the end of its block, 0 beyond it; UINT64_MAX if it lies in no block. Acquires the
 *  pool's lock. */
uint64_t frameBytesThere(const DFRAME *frame, const DataPlace &place);

/** Copies the frame's dwBytesUsed bytes, at most `capacity` and none beyond the end of a known block. What a
 *  frame in no block claims to use beyond its dwBufferLength is copied as far as it can be read.
 *  @return bytes copied */
uint32_t frameCopyUsed(uint8_t *destination, uint32_t capacity, const DFRAME *frame, const DataPlace &place);

/** Drops one reference on the data. lpData stays.
 *  @return false if neither heap knows the pointer. The pool answers for its whole region, also for an address in no
 *          block. */
bool frameReleaseData(const DFRAME *frame, const char *msgarea, uint32_t line);

/** Adds one reference to data of a known place.
 *  @param detail  for the trace, of data in the local heap
 *  @return 0, or -1 if the pool has no block there */
int32_t frameAddRefData(const DFRAME *frame, const DataPlace &place, const char *msgarea, uint32_t line,
                        const char *detail);

/** Brings lpData to the start of its block.
 *  @return false if neither heap knows the pointer */
bool frameDataToStart(PDFRAME frame, const DataPlace &place, const char *msgarea, uint32_t line);

/** A new buffer of dwBufferLength bytes from one heap and no other; the pool rounds dwBufferLength.
 *  @param heap  the pool's, or null for the local heap
 *  @return false, and a null lpData, if there is no memory */
bool frameAllocBuffer(PDFRAME frame, ::DFHEAP *heap, const char *msgarea, uint32_t line);
/** @} */

/** @name The commands, as dframe.h tells them
 *  @{ */
uint64_t commandAlloc(uint32_t command, int64_t param1, uintptr_t param2, PDFRAME *ppDF, const char *msgarea,
                      uint32_t line);
uint64_t commandFree(PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandAddRef(PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandCopy(uintptr_t param2, PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandDupFree(uintptr_t param2, PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandSwap(int64_t param1, uintptr_t param2, PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandResize(int64_t param1, PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandIsLocal(PDFRAME *ppDF);
uint64_t commandIsBrenvole(PDFRAME *ppDF);
uint64_t commandFindAlloc(PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandFixAlloc(PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandReset(uint32_t command, int64_t param1);
uint64_t commandClose(uint32_t command);
uint64_t commandTotal(uint32_t command);
uint64_t commandLargest(uint32_t command, PDFRAME *ppDF);
uint64_t commandTotalAvail(uint32_t command, PDFRAME *ppDF);
uint64_t commandTotalUsed(uint32_t command, PDFRAME *ppDF);
uint64_t commandDump(uint32_t command);
/** @} */

} // namespace brenvole

#endif
