// The lock of the contract is free while it holds nothing but zeros.
#include "static_lock.h"

void QXStaticLock::lock() { qxOSEnterCriticalSection(&Rest); }

void QXStaticLock::unlock() { qxOSLeaveCriticalSection(&Rest); }
