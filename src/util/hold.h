/** @file
 *  Holds a lock of QXUtil for a scope. Not for use inside a guarded section, which a fault leaves without
 *  running destructors. */
#ifndef QXUTIL_HOLD_H
#define QXUTIL_HOLD_H

#include "qxutil.h"

class QXHold {
  public:
    explicit QXHold(QXCRITICALSECTION &lock) : lock_(lock) { qxOSEnterCriticalSection(&lock_); }
    ~QXHold() { qxOSLeaveCriticalSection(&lock_); }
    QXHold(const QXHold &) = delete;
    QXHold &operator=(const QXHold &) = delete;

  private:
    QXCRITICALSECTION &lock_;
};

#endif
