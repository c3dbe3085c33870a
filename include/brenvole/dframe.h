/** @file
 *  Frames: the command entry, the DFRAME record, flags, commands and status codes.
 *
 *  There are two things. A *frame* is a DFRAME header with a reference count in front of it; a caller holds
 *  references to frames. A *data buffer* lies elsewhere, has a reference count of its own, and belongs to the
 *  library unless DFRAME_FLAG_CUSTOM is set. DFRAME_ADDREF raises both counts, DFRAME_FREE lowers both, and
 *  each goes when its own count reaches 0.
 *
 *  Data buffers come from the *pool*, one large region of the system's that DFRAME_RESET makes, or from the *local
 *  heap*. As long as there is no pool, the local heap serves, and a frame that it can't serve (or a duplicate of a
 *  custom frame) makes the pool at its default size of 524255000 bytes; after a failure, at the last size tried, so
 *  after a DFRAME_RESET that got no region at none. With a pool, the local heap serves when the pool is full.
 *
 *  There is one pool in a process. The program and every plug-in that loads the shared library share it: who
 *  makes it by DFRAME_RESET makes it for all, and who ends it by DFRAME_CLOSE takes it from all. A plug-in that
 *  embeds the static library has a pool, and frames, of its own.
 *
 *  A new record is zero but for its stamps (dwRefCount, dwSize, dwFlags, dwAttachMark, dwAttachValue,
 *  dwCreateMark, lpData, dwBufferLength). The content of new data is undefined. Data is aligned to 16384 bytes
 *  in the local heap and to 4096 in the pool; a record to 4.
 *
 *  A frame is made for a picture or for a longer piece of sound. A header takes 8.5 KB, and a local block its
 *  data, rounded up to 8192 bytes, and 16.5 KB of address space: a frame of 4096 bytes takes 20 KB of resident
 *  memory. Don't use a frame for each audio packet.
 *
 *  Threads: every command may run on any thread at any time, but for DFRAME_RESET and DFRAME_CLOSE, beside
 *  which no other may run. The library guards its counts and its own state; the other fields of a frame are
 *  under no lock, so a caller keeps threads that change one frame apart. Commands that only read a frame, such
 *  as DFRAME_COPY its source, may run on it on any number of threads at once.
 *
 *  Several holders: a frame's header and its data have a count each, and DFRAME_FREE drops one of both. A
 *  command that gives a frame another buffer (DFRAME_ALLOC, DFRAME_COPY or DFRAME_DUP_FREE with an existing
 *  frame as the destination, DFRAME_RESIZE) leaves the header with all its references, and the new buffer with
 *  one: the second holder's DFRAME_FREE would then release a buffer that is gone, or another frame's that lies
 *  in its place by now. Use them on frames with one holder.
 *
 *  Custom frames: a caller that has memory of its own, a capture card's, say, lends it to a frame. Such a frame isn't
 *  shared by DFRAME_ADDREF, and DFRAME_FREE refuses it until the memory has been taken back:
 *  @code
 *      PDFRAME frame = NULL;
 *      DFrameMem(DFRAME_ALLOC, 1, DFRAME_SIZE, &frame);
 *      uint8_t *const own = frame->lpData;          // the frame's own small buffer, kept aside
 *      const uint32_t length = frame->dwBufferLength;
 *      frame->lpData = card;                        // the caller's, as long as the flag is set
 *      frame->dwBufferLength = frame->dwBytesUsed = cardBytes;
 *      frame->dwFlags |= DFRAME_FLAG_CUSTOM;
 *
 *      PDFRAME copy = NULL;                         // a frame of the library's, with a copy of the bytes
 *      DFrameMem(DFRAME_DUP_FREE, 0, (uintptr_t)&frame, &copy);
 *
 *      frame->dwFlags &= ~DFRAME_FLAG_CUSTOM;       // the end: the own buffer again, then the usual release
 *      frame->lpData = own;
 *      frame->dwBufferLength = length;
 *      frame->dwBytesUsed = 0;
 *      DFrameMem(DFRAME_FREE, 0, 0, &frame);
 *  @endcode
 *
 *  Messages: a program that makes, shares and releases frames prints nothing. DFRAME_RESET, DFRAME_CLOSE, and
 *  the end of a process that has a pool, write a line or two to standard error, and nearly every refusal writes
 *  one. QXUTIL_LOG names a file for them (the null device silences the library), or a program takes them by
 *  qxSetLogSink of qxutil.h.
 *
 *  Forks: a forked child has a copy of the pool and of all frames, and may use them. The fork waits until
 *  nobody holds one of the library's locks: a thread that holds a heap's by DFHEAP_Lock, or runs a message
 *  sink, must not wait for a thread that forks. A child that ends by exit() reports its copy of the pool like
 *  any process; _exit() reports nothing.
 *
 *  The end of a process: exit() may run while other threads use the library. What lives in the pool then is
 *  reported, and stays as it is for these threads.
 *
 *  Sizes are in bytes. The header compiles as C11 and as C++20. */
#ifndef BRENVOLE_DFRAME_H
#define BRENVOLE_DFRAME_H

#include <stddef.h>
#include <stdint.h>

#ifndef BRENVOLE_API /* the library's own build marks its exports through this */
#define BRENVOLE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Smallest record, in bytes; no header is ever made smaller. */
#define DFRAME_SIZE 8480u
/** Largest valid dwTailLength, in bytes. */
#define DFRAME_TAIL_MAX 1024u

/** @name Bits of DFRAME::dwFlags
 *  @{ */
#define DFRAME_FLAG_CUSTOM 0x00001000u  /**< lpData belongs to the caller: never freed, and in no heap */
#define DFRAME_FLAG_TAIL 0x00008000u    /**< the record carries a tail extension at lpTail */
#define DFRAME_FLAG_CREATED 0x10000000u /**< set at creation, never tested by the library */
/** @} */

/** @name Command word
 *  Bits 0 to 7 are the command, bit 31 is DFRAME_FLAG_SYSHEAP, the others are ignored.
 *  @{ */
#define DFRAME_FLAG_SYSHEAP 0x80000000u /**< address the local side instead of the pool */
/** @} */

/** @name Commands; every other number is refused with DFMEM_E_FAILED
 *  The figures answer for the pool's heap if there is one and DFRAME_FLAG_SYSHEAP is clear (so also after a
 *  DFRAME_CLOSE of the local side, when there is no memory behind it), else for the local side. There,
 *  "local free" is the pool's size (or the size to be tried next) minus what local blocks take, the cached one
 *  included, and 0 if they take as much; "local used" is what they take, and 0 if that is as much. A figure that is
 *  held has at most 32 bits as the result, and goes whole through `ppDF`, which is then a pointer to a uint64_t
 *  (cast), may be null, and stays unwritten on the local side.
 *  @{ */
/** @return size of the pool in bytes, as it was had from the system; or local free */
#define DFRAME_TOTAL 0u
/** @return size of the pool's largest free segment, held; or local free */
#define DFRAME_LARGEST 1u
/** @return the unit in bytes, 4096, in which the pool hands out data */
#define DFRAME_GRANULARITY 2u
/** @return the largest size in bytes, 8192, that the pool places at its top end; larger ones go to the bottom */
#define DFRAME_SMALLEST 3u
/** Makes the pool, or another one instead. A pool that is large enough stays as it is, and one with a block in it
 *  is never touched.
 *  @par param1  wanted size in bytes. It is cut to 80 percent of the memory that the machine, or the
 *       container, has available, and to 0xFFFFFF000. -1 asks for as much as that; with a pool it is enough
 *       already. 0 gives an idle pool back, with DFMEM_E_OUTOFMEMORY as the result. A size that the system
 *       refuses is lowered in steps of 32768 bytes, and below 16 MiB in tenths; DFRAME_TOTAL tells what was
 *       had.
 *  @return 0, also for a large enough pool and always with DFRAME_FLAG_SYSHEAP, which does nothing; plain
 *       DFMEM_E_POINTER (blocks live in the pool, or its free space isn't in one piece) or DFMEM_E_BUSY: then
 *       nothing has changed; DFMEM_E_OUTOFMEMORY widened if no pool can be had: then the old one is gone
 *  @note If the pool's own records can't be had, or it is smaller than DFRAME_GRANULARITY, the result is 0 and
 *       the local heap serves.
 *  @note Inside, 10 * param1 is taken in 64 bits: a magnitude above 2^63 / 5 wraps, and gives some smaller
 *       size, or all that is available. Where the system doesn't tell what is available, no more than
 *       0x4100000 bytes are asked for. */
#define DFRAME_RESET 5u
/** Makes a frame, or gives an existing one new data.
 *  @par param1  wanted data size, not 0; the buffer gets 40 percent more: param1 * 1.4, cut to an integer, of
 *       which the low 32 bits count. If these are 0, the result is a frame without data. A result above 0xFFFFF000
 *       rounds to 2^32 in the pool: the frame then has the data, but a dwBufferLength of 0.
 *  @par param2  record size, not 0; a new record has at least DFRAME_SIZE bytes, and its low 32 bits count. With data
 *       attached, an existing frame's dwSize takes the low 32 bits of it as they are.
 *  @par ppDF    in and out: null at *ppDF for a new frame, else the frame whose data is replaced, which has one
 *       holder. Its old buffer loses one reference; a custom buffer is only forgotten. Flags,
 *       DFRAME_FLAG_CUSTOM among them, and dwBytesUsed stay. A frame with lpData set and a dwBufferLength of 0
 *       loses no reference; it keeps its data unless there is a pool.
 *  @par DFRAME_FLAG_SYSHEAP  the local heap goes first, and the pool when that fails
 *  @return 0; a plain DFMEM_E_POINTER (null ppDF, zero param2) or DFMEM_E_INVALIDARG (zero param1); or
 *       DFMEM_E_OUTOFMEMORY widened: then the frame's reference is gone and *ppDF is null
 *  @note A failed first attempt costs an existing frame its reference as well; the second attempt then makes a
 *       new frame, so with 0 as the result *ppDF may be another frame than before.
 *  @note dwBufferLength is rounded up to DFRAME_GRANULARITY for data in the pool, and for data that found no room
 *       there. */
#define DFRAME_ALLOC 10u
/** Drops one reference to the frame and one to its data; each goes with its last reference.
 *  @par ppDF    in and out: the frame; *ppDF is null afterwards unless the command is refused
 *  @return 0, also while other references remain; 0xFFFFFFFE if the data was found in no heap (the header went
 *       all the same); plain DFMEM_E_POINTER (null ppDF or frame) or DFMEM_E_INVALIDARG (custom frame)
 *  @note Data in the pool that has been released already gives 0 as well; only the trace reports it. A released
 *       header isn't noticed; Valgrind sees the access. */
#define DFRAME_FREE 11u
/** Adds one reference to the frame and one to its data.
 *  @par ppDF    in: the frame
 *  @return 0; plain DFMEM_E_POINTER (null ppDF or frame), DFMEM_E_INVALIDARG (custom frame),
 *       DFMEM_E_OUTOFMEMORY (frame without data) or DFMEM_E_FAILED (data in no heap); 0xFFFFFFFF if lpData lies in
 *       the pool's region but in no block. In the last two cases the header's count stays raised. */
#define DFRAME_ADDREF 12u
/** Gives the caller a second frame with the header and the bytes of a source.
 *  @par param2  pointer to the source's PDFRAME. The source is only read: any number of threads may copy from
 *       one frame at the same time, as long as nobody changes it.
 *  @par ppDF    in and out: the destination; null at *ppDF for a new one, else a frame with one holder. A new
 *       one shares nothing. It gets the source's dwBufferLength (16 or 4096 more if the source is full) in the
 *       source's heap, or, if that is the pool and it is full, in the local heap. It takes over a moved data
 *       pointer, with the bytes in front of it (but for one that the local heap couldn't find); its
 *       dwBufferLength counts from lpData. An existing one keeps its buffer if that holds the source's
 *       dwBytesUsed, also if it is the source's own. Without a buffer, or with one that is too small, which is
 *       released, it gets one in the source's heap or not at all. One that is too small and known to neither
 *       heap stays and takes what fits; its dwBytesUsed still becomes the source's.
 *  @par Header  all but dwSize (at least DFRAME_SIZE) and dwTrailE is the source's; DFRAME_FLAG_CUSTOM stays
 *       the destination's own, lpTail is null. If bytes are copied, lpLink is null and the attach stamps are
 *       new: a destination that stands on a list is reported, and has to be taken off before.
 *  @return 0; plain DFMEM_E_POINTER (null param2 or ppDF), DFMEM_E_INVALIDARG (null source; custom destination
 *       that is too small) or DFMEM_E_OUTOFMEMORY (no new frame); DFMEM_E_OUTOFMEMORY widened if no buffer can
 *       be had: then the destination's reference is gone and *ppDF is null
 *  @note A frame copied onto itself loses its dwBytesUsed and its lpTail. Bytes used without data give a copy
 *       without bytes used, and so does an lpData that was moved beyond the end of its own local block. No byte
 *       beyond a block is copied, whatever the frame says to use. */
#define DFRAME_COPY 13u
/** Makes the destination a duplicate of the source that shares the source's buffer, by one more reference on it. A
 *  custom source's bytes, and those of a buffer that neither heap knows, are copied instead.
 *  @par param2  pointer to the source's PDFRAME
 *  @par ppDF    in and out: the destination; null at *ppDF for a new one, else a frame with one holder, whose
 *       data loses a reference first. A custom source makes new frames only, in the pool, which is made if
 *       there is none, or in the local heap if that is full.
 *  @par Header  all but lpLink is the source's, lpTail is null. dwSize stays, and becomes DFRAME_SIZE if the
 *       source's is less. From a custom source DFRAME_FLAG_CUSTOM isn't taken over, and dwBufferLength is that
 *       of the new buffer.
 *  @return 0; plain DFMEM_E_POINTER (null ppDF), DFMEM_E_INVALIDARG (null param2 or source, the same frame
 *       twice, a custom destination, a custom source with an existing destination or with bytes used and no
 *       data or length) or DFMEM_E_OUTOFMEMORY (no new frame, no buffer for a custom source's bytes);
 *       0xFFFFFFFF if the source's lpData lies in the pool's region but in no block: then the destination's
 *       old data and its reference are gone, *ppDF is null, and other holders of the destination had better
 *       forget its lpData
 *  @note If a buffer that neither heap knows has to be copied and there is no memory for it, the result is 0
 *       and the destination's lpData is null.
 *  @note All of dwBytesUsed is copied that the new buffer holds; what lies beyond the source's dwBufferLength,
 *       as far as it can be read. */
#define DFRAME_DUP_FREE 14u
/** Exchanges the contents of two frames. Two buffers of one heap only change frames; else the bytes in use move.
 *  The frames keep their references, and each keeps its count on the buffer that it has then: so a frame that
 *  shares its buffer with another one (DFRAME_DUP_FREE) is not to be exchanged, or the buffer goes before its last
 *  holder.
 *  @par param1  smallest data size of a target that is made here or has no data; may be 0 or negative. Its low
 *       32 bits become the target's dwBufferLength.
 *  @par param2  pointer to the source's PDFRAME
 *  @par ppDF    in and out: the target; null at *ppDF for a new one, of at least the source's dwBufferLength,
 *       which takes the source's content, while the source gets the new frame's empty buffer; if that came to
 *       lie in the other heap, the source keeps its own, with dwBytesUsed 0. A target without data gets a
 *       buffer first.
 *  @par Bytes   between the heaps both have to use fewer bytes than the other buffer holds; but the bytes for
 *       a new target, or for one that uses none, go one way, as many as fit, and dwBytesUsed is exchanged all
 *       the same.
 *  @par Header  exchanged, or handed to a new target: flags, opaque body, qwTrailC, dwTrailD, the marks. The
 *       source's dwTrailF to dwTrailI go to the target and stay in the source. Neither comes out with a valid
 *       tail.
 *  @return 0, also if one of the two has no data then: nothing is exchanged; plain DFMEM_E_POINTER (null ppDF),
 *       DFMEM_E_INVALIDARG (null param2 or source, a custom frame), DFMEM_E_FAILED (the bytes don't fit, an
 *       lpData was moved beyond the end of its own local block, or of two pointers into the pool one lies in no
 *       block) or DFMEM_E_OUTOFMEMORY: no new target, no temporary, or no buffer for a target without data,
 *       which then loses a reference, and *ppDF is null */
#define DFRAME_SWAP 15u
/** Gives a frame a buffer of another size in its heap, with the bytes in use that fit. The new one is there before
 *  the old one loses one reference, so frames that share the buffer keep it. The new one has one reference: a frame
 *  that has several holders itself is not to be resized. A moved lpData stays moved, with the bytes in front of it;
 *  the size counts from lpData.
 *  @par param1  new data size, 0 to 0xFFFFFFFF; 0 leaves the frame without data, or with the bytes in front of
 *       lpData
 *  @par ppDF    in: the frame
 *  @return 0, also for the present size; plain DFMEM_E_POINTER (null ppDF) or DFMEM_E_INVALIDARG (null or
 *       custom frame, a size out of range) or DFMEM_E_OUTOFMEMORY; -1 (64 bits) for a frame without data or
 *       with a pointer that neither heap knows, or that was moved beyond the end of its own local block. Unless
 *       the result is 0, the frame is as it was. */
#define DFRAME_RESIZE 16u
/** @par ppDF    in: the frame, as for the other three that tell where data lies
 *  @return 1 if the data lies in the local heap; else 0, also for null arguments and custom frames */
#define DFRAME_ISLOCAL 9u
/** @return 1 if the data lies in the pool; else 0, also for null arguments and custom frames */
#define DFRAME_ISBRENVOLE 18u
/** @return in the pool, the distance of lpData from the start of its block in bytes, low 32 bits, and 0 if no block
 *  holds it; in the local heap, the address of the start; 0 for a frame without data; -1 (64 bits) if neither heap
 *  knows lpData; plain DFMEM_E_POINTER (null ppDF) or DFMEM_E_INVALIDARG (null or custom frame) */
#define DFRAME_FINDALLOC 21u
/** Puts lpData back to the start of its block (if the pool has none there, it stays). dwFlags, dwTrailA, dwTrailB,
 *  dwCreateMark, qwTrailC and dwTrailD to dwTrailI become 0, the attach stamps new.
 *  @return 0, also for a frame without data, which isn't touched; -1 (64 bits) if neither heap knows lpData, then the
 *       fields are cleared all the same; a status as above */
#define DFRAME_FIXALLOC 17u
/** Ends the pool and drops the cached local block. The pool's figures return to their defaults, and commands may
 *  follow. Blocks that still live in the pool are logged as leaks; their data is gone, and their frames are good
 *  for DFRAME_FREE only, which reports the lost data, and only as long as no new pool stands in the old one's
 *  place.
 *  @par DFRAME_FLAG_SYSHEAP  the region goes, but its blocks live on as numbers, so that frames can still be
 *       freed without a report; nothing that reads their data may follow. The next frame for the pool makes a
 *       new one, and forgets the old blocks.
 *  @return 0 */
#define DFRAME_CLOSE 19u
/** @return free bytes of the pool, held; or local free */
#define DFRAME_TOTALAVAIL 20u
/** @return bytes of the pool's blocks, held; or local used */
#define DFRAME_TOTALUSED 22u
/** Logs the lists of the pool's blocks and free segments, at most once in 1000 ms; nothing on the local side.
 *  @return 0 */
#define DFRAME_DUMP 128u
/** @} */

/** @name Status codes
 *  The result of a command has 64 bits. A status comes plain (high half 0) or widened (sign-extended):
 *  compare its low 32 bits. 0 is success in both forms.
 *  @{ */
#define DFMEM_E_INVALIDARG 0xE8108004u  /**< an argument of the wrong kind */
#define DFMEM_E_POINTER 0xE8108005u     /**< a null pointer, a zero record size, or a pool in use */
#define DFMEM_E_FAILED 0xE8108013u      /**< unknown command, or no way to do the work */
#define DFMEM_E_BUSY 0xE810801Fu        /**< the heap's state can't be read */
#define DFMEM_E_OUTOFMEMORY 0xE8108020u /**< no memory for a header, data or a pool; a frame without data */
/** @} */

/** The frame record. Callers read and write it directly, so the order and the offsets are part of the
 *  interface. A record is 4-byte aligned at best, hence the packing: 64-bit fields lie on 4-byte boundaries.
 *
 *  A record larger than DFRAME_SIZE belongs to its caller from byte 8480 on. The opaque body is abBodyHead to
 *  abBodyRest, 8376 bytes; the library carries it and doesn't know what it holds.
 *
 *  Rules: dwBytesUsed is at most dwBufferLength (a breach is reported and never fatal); a null lpData means no
 *  data, whatever dwBufferLength says; lpData may be moved up inside its buffer, in a local block by at most
 *  278527 bytes, beyond which the block is no longer found. */
#pragma pack(push, 4)
typedef struct DFRAME {
    void *lpLink[3];          /**< list node, for a list of the caller's; the library never links a frame */
    uint32_t dwSize;          /**< size of the record */
    uint32_t dwFlags;         /**< DFRAME_FLAG_... */
    uint32_t dwAttachMark;    /**< 1 whenever data is attached */
    uint8_t abBodyHead[8236]; /**< opaque body, first piece */
    void *lpTail;             /**< tail extension, behind the record's first 8480 bytes */
    uint32_t dwTailLength;    /**< length of the tail, 1 to DFRAME_TAIL_MAX if there is one */
    uint8_t abBodyRest[128];  /**< opaque body, last piece */
    uint32_t dwTrailA;        /**< opaque */
    uint32_t dwAttachValue;   /**< 65520 whenever data is attached */
    uint32_t dwTrailB;        /**< opaque */
    uint32_t dwCreateMark;    /**< 0xFFFFFFFF at creation */
    uint8_t *lpData;          /**< the data buffer, or null */
    uint32_t dwBufferLength;  /**< capacity of the data buffer */
    uint32_t dwBytesUsed;     /**< bytes in use, set by the caller */
    uint64_t qwTrailC;        /**< opaque */
    uint32_t dwTrailD;        /**< opaque */
    uint32_t dwTrailE;        /**< opaque */
    uint32_t dwTrailF;        /**< opaque */
    uint32_t dwTrailG;        /**< opaque */
    uint32_t dwTrailH;        /**< opaque */
    uint32_t dwTrailI;        /**< opaque */
    uint16_t wTrailJ;         /**< opaque */
    uint8_t abEnd[2];         /**< brings the record to 8480 bytes */
} DFRAME, *PDFRAME;
#pragma pack(pop)

/** Runs one command.
 *  @param command  DFRAME_... , with or without DFRAME_FLAG_SYSHEAP
 *  @param param1   a size, as the command says
 *  @param param2   a size or a pointer, as the command says
 *  @param ppDF     the frame in and out, as the command says
 *  @return 0, a status or a figure, as the command says
 *  @note Holds no lock when it returns. Refusals are logged through QXUtil. */
BRENVOLE_API uint64_t DFrameMem(uint32_t command, int64_t param1, uintptr_t param2, PDFRAME *ppDF);

/** DFrameMem with the call site, which serves the trace and decides nothing.
 *  @param msgarea  names the caller's source area, may be null; read during the call only
 *  @param line     the caller's source line */
BRENVOLE_API uint64_t DFrameMemTrace(uint32_t command, int64_t param1, uintptr_t param2, PDFRAME *ppDF,
                                     const char *msgarea, uint32_t line);

/** The system's hook at load and unload. Reason 0, process detach, ends the pool and gives the cached local
 *  block back; no other reason does any work. The platform calls it when the library leaves the process. Ending
 *  a pool is logged, so a sink of the host's has to be callable up to then, or be taken off. In exit() other
 *  threads may still run commands: the pool's blocks are reported then, and nothing of it is released. When the
 *  library is unloaded, no thread may be inside.
 *  @return 1 for every reason */
BRENVOLE_API int DllMain(void *instance, uint32_t reason, void *reserved);

#ifdef __cplusplus
}
#endif

#endif
