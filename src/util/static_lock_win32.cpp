#include "static_lock.h"

#include <windows.h>

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(QXStaticLock) && alignof(CRITICAL_SECTION) <= alignof(QXStaticLock));
static_assert(offsetof(CRITICAL_SECTION, DebugInfo) == 0 && offsetof(CRITICAL_SECTION, LockCount) == 8 &&
              offsetof(CRITICAL_SECTION, RecursionCount) == 12 && offsetof(CRITICAL_SECTION, OwningThread) == 16);

void QXStaticLock::lock() { EnterCriticalSection(reinterpret_cast<CRITICAL_SECTION *>(awStart)); }

void QXStaticLock::unlock() { LeaveCriticalSection(reinterpret_cast<CRITICAL_SECTION *>(awStart)); }
