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
    InitializeCriticalSectionAndSpinCount(new (lock->u.abState) CRITICAL_SECTION, kSpins);
}

void qxOSEnterCriticalSection(QXCRITICALSECTION *lock) { EnterCriticalSection(sectionOf(lock)); }

void qxOSLeaveCriticalSection(QXCRITICALSECTION *lock) { LeaveCriticalSection(sectionOf(lock)); }

void qxOSDeleteCriticalSection(QXCRITICALSECTION *lock) { DeleteCriticalSection(sectionOf(lock)); }
