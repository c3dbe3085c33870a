/** @file
 *  What the units of the front end share: the life of headers and of their data. `msgarea` and `line` name the
 *  call site; they are handed on everywhere and decide nothing. */
#ifndef BRENVOLE_FRAMES_H
#define BRENVOLE_FRAMES_H

#include "local/counters.h"

#include <brenvole/dframe.h>

#include <cstddef>
#include <cstdint>

struct DFHEAP;

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

/** The heap over the pool; null as long as there is no pool. */
extern ::DFHEAP *mainHeap;

/** The block around a frame. */
inline FrameBlock *frameBlockOf(PDFRAME frame) {
    return reinterpret_cast<FrameBlock *>(reinterpret_cast<char *>(frame) - offsetof(FrameBlock, frame));
}

/** True if the frame says that more bytes are used than its buffer has. Reported by the commands, never fatal. */
inline bool frameOverwritten(const DFRAME *frame) { return frame->dwBytesUsed > frame->dwBufferLength; }

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

/** Makes a header without data.
 *  @param size  record size, raised to DFRAME_SIZE; above 0xFFFFFFFB it is refused like a failed QXAlloc
 *  @return the frame, or null */
PDFRAME allocPDFRAME(uint32_t size, const char *msgarea, uint32_t line);

/** Drops one reference to the header and sets *ppDF to null.
 *  @return references left; 0 if the header is gone; -1 if there was no frame */
int32_t freePDFRAME(PDFRAME *ppDF, const char *msgarea, uint32_t line);

/** Adds one reference to the header. */
void addRefPDFRAME(PDFRAME frame);

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

/** @name The commands, as dframe.h tells them
 *  @{ */
uint64_t commandAlloc(uint32_t command, int64_t param1, uintptr_t param2, PDFRAME *ppDF, const char *msgarea,
                      uint32_t line);
uint64_t commandFree(PDFRAME *ppDF, const char *msgarea, uint32_t line);
uint64_t commandAddRef(PDFRAME *ppDF, const char *msgarea, uint32_t line);
/** @} */

} // namespace brenvole

#endif
