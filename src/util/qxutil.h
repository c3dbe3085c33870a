/** @file
 *  QXUtil: what the whole system stands on. The utility contract, the platform layer and the host hook.
 *
 *  This file is the border to the platform: each function behind it is implemented once for all platforms or
 *  once per platform (`*_posix.cpp`). A program may put another QXUtil, or any single function of it, in the
 *  place of this one; the memory library calls nothing of QXUtil but what stands here.
 *
 *  Holds for all of it: sizes in bytes, strings narrow and zero-terminated, every function may be called from
 *  any thread unless it says otherwise, nothing here throws. */
#ifndef QXUTIL_H
#define QXUTIL_H

#include <stdint.h>

#ifndef QXUTIL_API /* QXUtil's own build marks its exports through this */
#define QXUTIL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** @name Messages
 *  Formats are printf's, with these fixed widths on every platform: %d %u %x %X %c and every form with `l`
 *  32 bits, `ll` and `I64` 64 bits, `I32` 32 bits, `h` and `hh` 16 and 8 bits of a 32-bit argument, `z` and
 *  `I` pointer-sized, %p a pointer as sixteen upper-case digits without a prefix, %s a string or null
 *  ("(null)"), %f %e %g a double with at most 60 digits of precision and no `#` form. %n and anything unknown
 *  is printed as it stands and takes no argument.
 *  @{ */
#define QX_STATUS 0x00000000u
#define QX_CAUTION 0x40000000u
#define QX_WARNING 0x80000000u
#define QX_ERROR 0xC0000000u

/** One message to the log. It goes to the sink with severity 0. */
QXUTIL_API void ErrOut(const char *format, ...);
/** One message with a severity, QX_STATUS to QX_ERROR, whose prefix stands in `format`. */
QXUTIL_API void ErrFmtOut(uint32_t severity, uint32_t, uint32_t, const char *format, ...);
/** Logs `text` as it stands (null: nothing) with the severity in the top two bits of `status`.
 *  @return status */
QXUTIL_API uint32_t ErrMsgOut(uint32_t status, const char *text, uintptr_t, uintptr_t, uintptr_t, uintptr_t);

/** Takes every message, already formatted, as its format has it (with or without a line feed at its end).
 *  Runs on the thread that logs, under no lock of QXUtil's, from several threads at once if they log at once.
 *  It may call the library and QXUtil, and throws nothing. It may run while the library holds a lock, so it
 *  must not wait for another thread that is inside the library. */
typedef void (*QXLogSink)(uint32_t severity, const char *message, void *context);
/** Puts `sink` in place of the log; null restores the log. Calls of the old sink that have begun go on. The
 *  memory library logs up to its very end in the process, behind the host's static objects: a sink lasts as
 *  long, or is taken off. */
QXUTIL_API void qxSetLogSink(QXLogSink sink, void *context);
/** @} */

/** @name Memory
 *  @{ */
/** @return a block of at least `size` bytes with undefined content, aligned for any type; null if refused */
QXUTIL_API void *QXAlloc(uint32_t size);
/** Releases a block of QXAlloc. */
QXUTIL_API void QXFree(void *block);
/** @return 1 while the calling thread is inside the C library's allocator on behalf of this library, else 0. A memory
 *  fault there is the host's: it has damaged its heap. May be asked by a signal handler; another QXUtil may lack it.
 */
QXUTIL_API int32_t qxOSInAllocator(void);
/** Copies the smaller of `count` and `capacity` bytes; the ranges may overlap. */
QXUTIL_API void qxOSCopyMemorySafeFast(void *destination, const void *source, uint32_t count, uint32_t capacity);
/** Copies `count` bytes; the ranges don't overlap. */
QXUTIL_API void CopyMemoryFast(void *destination, const void *source, uint32_t count);
/** @} */

/** @name Locks and interlocked words
 *  @{ */
/** A lock object, stored by its user and not moved while it lives. The owner may enter again and leaves as
 *  often; a waiter sleeps. */
typedef struct QXCRITICALSECTION {
    union {
        void *lpAlign;
        unsigned char abState[64];
    } u;
} QXCRITICALSECTION;

QXUTIL_API void qxOSInitializeCriticalSection(QXCRITICALSECTION *lock);
QXUTIL_API void qxOSEnterCriticalSection(QXCRITICALSECTION *lock);
QXUTIL_API void qxOSLeaveCriticalSection(QXCRITICALSECTION *lock);
/** The lock is free and nobody waits for it. */
QXUTIL_API void qxOSDeleteCriticalSection(QXCRITICALSECTION *lock);

/** @name Beyond the contract
 *  What the memory library uses to get through a fork without waiting for one lock while it holds another. Another
 *  QXUtil may lack them; then they do without.
 *  @{ */
/** Enters a lock that is free, or the thread's already. @return not 0 if it was entered */
QXUTIL_API int32_t qxOSTryEnterCriticalSection(QXCRITICALSECTION *lock);
/** @return 1 if these three are this library's own functions, which belong together, else 0 */
QXUTIL_API int32_t qxOSOwnLocks(void (*initialize)(QXCRITICALSECTION *), void (*enter)(QXCRITICALSECTION *),
                                void (*leave)(QXCRITICALSECTION *));
/** From now on a fork acquires QXUtil's own locks, and releases them on both sides. Handlers that acquire locks
 *  of the contract are registered afterwards: the system runs the handlers of later registrations first. */
QXUTIL_API void qxOSHookFork(void);
/** @} */

/** Atomic, sequentially consistent. @return the new value */
QXUTIL_API int32_t qxOSInterlockedIncrement(int32_t *word);
QXUTIL_API int32_t qxOSInterlockedDecrement(int32_t *word);
/** @} */

/** @name Time and configuration
 *  @{ */
/** @return milliseconds of a clock that never goes back */
QXUTIL_API uint64_t qxOSGetTimeMs(void);
/** Reads a number, decimal or 0x hexadecimal of 32 bits, from the configuration store.
 *  @param scope  reserved, -1
 *  @param section, key  compared without regard to the case of ASCII letters
 *  @param value  out, written only if found
 *  @return 0 if found, else not 0 */
QXUTIL_API uint32_t qxCFGValueDword(int32_t scope, const char *section, const char *key, uint32_t *value,
                                    uint32_t reserved);
/** Reads a text. A text that doesn't fit counts as not found, so that no path is ever cut.
 *  @param buffer  out, written only if found
 *  @param size    in: capacity of `buffer`; out, if found: bytes written, the terminator included
 *  @return 0 if found, else not 0 */
QXUTIL_API uint32_t qxCFGValueString(int32_t scope, const char *section, const char *key, char *buffer,
                                     uint32_t *size, uint32_t reserved);
/** Capacity of the buffer that qxOSGetConfigDir fills. */
#define QX_PATH_CAPACITY 520u
/** Writes the configuration directory, with a separator at its end, or an empty text if there is none.
 *  @param buffer  out, QX_PATH_CAPACITY bytes
 *  @param create  not 0: the directory is made if missing; empty if it can't be */
QXUTIL_API void qxOSGetConfigDir(char *buffer, int32_t create);
/** @} */

/** @name Lists
 *  A list lies in its user's record and has a lock of its own, which every operation on a list takes; who needs
 *  several operations as one holds it over them by d_ListLock. A node is the first three pointer words of a
 *  record, which may be aligned to 4 bytes only; lpList names the list that the node is on, null for none.
 *  d_ListNext and d_ListPrev take no lock: who walks keeps others from changing the list. A list's lock guards its
 *  nodes; which list a node is on may be asked and changed by one thread at a time, or under one list's lock.
 *  @{ */
struct d_List;
#pragma pack(push, 4)
typedef struct d_ListNode {
    struct d_ListNode *lpNext; /**< towards the tail, null at the end */
    struct d_ListNode *lpPrev; /**< towards the head, null at the end */
    struct d_List *lpList;
} d_ListNode;
#pragma pack(pop)

typedef struct d_List {
    d_ListNode *lpHead;
    d_ListNode *lpTail;
    uint32_t dwCount; /**< changed under the lock, read without it */
    uint32_t dwReserved;
    QXCRITICALSECTION Lock;
} d_List;

/** @return not 0 on success */
QXUTIL_API uint32_t d_ListInit(d_List *list);
/** Ends the list and its lock; nodes still on it are taken off. */
QXUTIL_API void d_ListClose(d_List *list);
QXUTIL_API void d_ListLock(d_List *list);
QXUTIL_API void d_ListUnLock(d_List *list);
/** Readies undefined memory: the node is on no list. */
QXUTIL_API void d_ListInitNode(d_ListNode *node);
/** The three ways in. @return not 0 on success; 0, and nothing changes, for a null argument, a node that is on
 *  a list already, or an `after` that isn't on this list */
QXUTIL_API uint32_t d_ListAddHead(d_List *list, d_ListNode *node);
QXUTIL_API uint32_t d_ListAddTail(d_List *list, d_ListNode *node);
QXUTIL_API uint32_t d_ListInsert(d_List *list, d_ListNode *after, d_ListNode *node);
/** The two ways out. @return the node taken off, or null if the list is empty or the node isn't on it */
QXUTIL_API d_ListNode *d_ListRemoveHead(d_List *list);
QXUTIL_API d_ListNode *d_ListRemove(d_List *list, d_ListNode *node);
QXUTIL_API d_ListNode *d_ListHead(d_List *list);
QXUTIL_API d_ListNode *d_ListTail(d_List *list);
QXUTIL_API d_ListNode *d_ListNext(d_ListNode *node);
QXUTIL_API d_ListNode *d_ListPrev(d_ListNode *node);
/** Takes no lock. */
QXUTIL_API uint32_t d_ListCount(d_List *list);
/** @} */

/** @name Platform layer
 *  @{ */
/** @return a committed, readable, writable, zero-filled region of `size` bytes, page-aligned, in huge pages where
 *  the system has them; null if it can't be had or `size` is 0. A refusal costs one call of the system. A region
 *  doesn't lie where an earlier one did, as far as the system allows: the memory library tells by an address which
 *  heap it belongs to. */
QXUTIL_API void *qxOSVirtualAlloc(uint64_t size);
/** Gives a whole region back, named by its base. Any other address is left alone. In exit() the region stays as it
 *  is for the threads that still use it, and goes with the process. */
QXUTIL_API void qxOSVirtualFree(void *base);
/** Physical memory of the machine, or of the container or the process's own limits if they give less; 0 where
 *  unknown. Either may be null. */
QXUTIL_API void qxOSMemoryStatus(uint64_t *totalPhys, uint64_t *availPhys);
/** Writes the directory for temporary files, with a separator at its end; empty if it doesn't fit. */
QXUTIL_API void qxOSGetTempDir(char *buffer, uint32_t capacity);
QXUTIL_API uint32_t qxOSGetProcessId(void);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
