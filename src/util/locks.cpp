// What all platforms share of the locks.
#include "static_lock.h"

constinit QXStaticLock qxStoreLock;
constinit QXStaticLock qxLogLock;
constinit QXStaticLock qxSinkLock;
constinit QXStaticLock qxRegionLock;

int32_t qxOSOwnLocks(void (*initialize)(QXCRITICALSECTION *), void (*enter)(QXCRITICALSECTION *),
                     void (*leave)(QXCRITICALSECTION *)) {
    return initialize == qxOSInitializeCriticalSection && enter == qxOSEnterCriticalSection &&
                   leave == qxOSLeaveCriticalSection
               ? 1
               : 0;
}
