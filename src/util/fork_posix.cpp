#include "fork.h"

#include "once.h"
#include "static_lock.h"

#include "qxutil.h"

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
    hookOnce = kOnceDone; // the thread that registered this may not be here to say so
    after();
    qxLocksForked();
}

} // namespace

void qxOSHookFork(void) { qxHookFork(); }

void qxHookFork() {
    qxOnce(hookOnce, [] { pthread_atfork(before, after, inChild); });
}
