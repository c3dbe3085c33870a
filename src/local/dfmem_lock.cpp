#include "dfmem_lock.h"

#include "util/once.h"
#include "util/unload.h"

namespace brenvole {

QXCRITICALSECTION dfmemLock;

namespace {

constinit QXOnce lockOnce = 0; // done from the first command on

} // namespace

void dfmemLockCreate() {
    qxOnce(lockOnce, [] {
        qxOSInitializeCriticalSection(&dfmemLock);
        qxHookUnload(); // there is something to be released from now on
    });
}

bool dfmemLockReady() { return qxDone(lockOnce); }

} // namespace brenvole
