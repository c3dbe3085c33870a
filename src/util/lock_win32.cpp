// The system's critical section, which lets its owner enter again.
#include "qxutil.h"

#include <new>

#include <windows.h>

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(QXCRITICALSECTION::u.abState) &&
              alignof(CRITICAL_SECTION) <= alignof(QXCRITICALSECTION));

namespace {

// Turns of a waiting thread before it sleeps: the sections under these locks are a few dozen instructions long.
constexpr DWORD kSpins = 400;

CRITICAL_SECTION *sectionOf(QXCRITICALSECTION *lock) {
    return std::launder(reinterpret_cast<CRITICAL_SECTION *>(lock->u.abState));
}

} // namespace

void qxOSInitializeCriticalSection(QXCRITICALSECTION *lock) {
    // No debug record: the system would find it in a library that has gone, as two of the locks are never deleted.
    InitializeCriticalSectionEx(new (lock->u.abState) CRITICAL_SECTION, kSpins, CRITICAL_SECTION_NO_DEBUG_INFO);
}

void qxOSEnterCriticalSection(QXCRITICALSECTION *lock) { EnterCriticalSection(sectionOf(lock)); }

void qxOSLeaveCriticalSection(QXCRITICALSECTION *lock) { LeaveCriticalSection(sectionOf(lock)); }

int32_t qxOSTryEnterCriticalSection(QXCRITICALSECTION *lock) {
    return TryEnterCriticalSection(sectionOf(lock)) != 0 ? 1 : 0;
}

void qxOSHookFork(void) {} // processes don't fork here

void qxOSDeleteCriticalSection(QXCRITICALSECTION *lock) { DeleteCriticalSection(sectionOf(lock)); }
