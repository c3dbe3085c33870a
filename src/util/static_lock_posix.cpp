// The system's plain mutex, which is free while it holds nothing but zeros, and which a forked child may leave.
#include "static_lock.h"

#include <pthread.h>

static_assert(sizeof(pthread_mutex_t) <= sizeof(QXCRITICALSECTION) && alignof(QXCRITICALSECTION) >= alignof(void *));

namespace {

pthread_mutex_t *mutexOf(QXStaticLock &lock) { return reinterpret_cast<pthread_mutex_t *>(lock.Rest.u.abState); }

} // namespace

void QXStaticLock::lock() { pthread_mutex_lock(mutexOf(*this)); }

void QXStaticLock::unlock() { pthread_mutex_unlock(mutexOf(*this)); }
