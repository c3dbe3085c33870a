/** @file
 *  Whose a memory fault is: marks where QXUtil calls the C library's allocator. A fault there means that the host has
 *  damaged its heap; a jump out of it would leave the allocator's lock held. Private. */
#ifndef QXUTIL_ALLOCATING_H
#define QXUTIL_ALLOCATING_H

/** Marks a scope; qxOSInAllocator returns 1 inside. If a host jumps out of it from its own fault handler, the
 *  mark stays, and all later faults of the thread are the host's. */
class QXAllocating {
  public:
    QXAllocating() noexcept;
    ~QXAllocating();
    QXAllocating(const QXAllocating &) = delete;
    QXAllocating &operator=(const QXAllocating &) = delete;
};

#endif
