// A lock is the system's own recursive mutex: it sleeps when contended, every tool knows it, and with the owner
// test in the same cache line it costs what a plain mutex costs (see ./run bench).
#include "qxutil.h"

#include <cstdlib>
#include <new>

#include <pthread.h>

static_assert(sizeof(pthread_mutex_t) <= sizeof(QXCRITICALSECTION::u.abState));
static_assert(alignof(pthread_mutex_t) <= alignof(QXCRITICALSECTION));

namespace {

pthread_mutex_t *mutexOf(QXCRITICALSECTION *lock) {
    return std::launder(reinterpret_cast<pthread_mutex_t *>(lock->u.abState));
}

} // namespace

void qxOSInitializeCriticalSection(QXCRITICALSECTION *lock) {
    auto *mutex = new (lock->u.abState) pthread_mutex_t;
    pthread_mutexattr_t kind;
    if (pthread_mutexattr_init(&kind) != 0 || pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_RECURSIVE) != 0 ||
        pthread_mutex_init(mutex, &kind) != 0) {
        std::abort(); // never seen; going on without the lock would lose frames in silence
    }
    pthread_mutexattr_destroy(&kind);
}

void qxOSEnterCriticalSection(QXCRITICALSECTION *lock) { pthread_mutex_lock(mutexOf(lock)); }

void qxOSLeaveCriticalSection(QXCRITICALSECTION *lock) { pthread_mutex_unlock(mutexOf(lock)); }

void qxOSDeleteCriticalSection(QXCRITICALSECTION *lock) { pthread_mutex_destroy(mutexOf(lock)); }
