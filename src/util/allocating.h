/** @file
 *  Marks where a library of ours calls the C library's allocator; compiled into both. A fault there means that the
 *  host has damaged its heap, and a jump out of it would leave the allocator's lock held. Private. */
#ifndef QXUTIL_ALLOCATING_H
#define QXUTIL_ALLOCATING_H

/** Marks a scope. If a host jumps out of it from its own fault handler, the mark stays, and all later faults of the
 *  thread are the host's. */
class QXAllocating {
  public:
    QXAllocating() noexcept;
    ~QXAllocating();
    QXAllocating(const QXAllocating &) = delete;
    QXAllocating &operator=(const QXAllocating &) = delete;
};

/** True if the calling thread is in such a scope of this library's. May be asked by a fault handler. */
bool qxAllocatingHere() noexcept;

#endif
