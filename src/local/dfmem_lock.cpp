#include "dfmem_lock.h"

#include "trace/trace.h"
#include "util/host.h"
#include "util/once.h"
#include "util/unload.h"

namespace brenvole {

QXCRITICALSECTION dfmemLock;

namespace {

constinit QXOnce lockOnce = 0; // done from the first command on
constinit QXOnce hookOnce = 0;

bool forkHolds = false; // the lock, which may be created between the handlers; of one fork at a time (all_heaps.cpp)

void beforeFork() {
    forkHolds = dfmemLockReady();
    if (forkHolds) {
        qxOSEnterCriticalSection(&dfmemLock);
    }
}

void forkedParent() {
    if (forkHolds) {
        qxOSLeaveCriticalSection(&dfmemLock);
    }
}

void forkedChild() {
    if (forkHolds) {
        qxOSInitializeCriticalSection(&dfmemLock);
    }
}

} // namespace

void dfmemLockCreate() {
    qxOnce(lockOnce, [] {
        qxOSInitializeCriticalSection(&dfmemLock);
        qxHookUnload(); // there is something to be released from now on
    });
}

void dfmemHookFork() {
    qxOnce(hookOnce, [] {
        traceHookFork();
        qxAtFork(beforeFork, forkedParent, forkedChild);
    });
}

bool dfmemLockReady() { return qxDone(lockOnce); }

} // namespace brenvole
