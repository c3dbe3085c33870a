#include "fork.h"

#include "once.h"
#include "static_lock.h"

#include <pthread.h>

namespace {

constinit QXOnce hookOnce = 0;

void before() {
    qxStoreLock.lock();
    qxLogLock.lock();
    qxSinkLock.lock();
    qxRegionLock.lock();
}

void after() {
    qxRegionLock.unlock();
    qxSinkLock.unlock();
    qxLogLock.unlock();
    qxStoreLock.unlock();
}

void inChild() {
    after();
    qxLocksForked();
}

} // namespace

void qxHookFork() {
    qxOnce(hookOnce, [] { pthread_atfork(before, after, inChild); });
}
