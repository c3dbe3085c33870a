#include "dfmem_lock.h"

#include "util/unload.h"

#include <atomic>
#include <mutex>

namespace brenvole {

QXCRITICALSECTION dfmemLock;

namespace {

std::atomic<bool> lockReady = false; // stays true from the first command on
std::once_flag lockOnce;

} // namespace

void dfmemLockCreate() {
    if (lockReady.load(std::memory_order_acquire)) { // every command but the first
        return;
    }
    std::call_once(lockOnce, [] {
        qxOSInitializeCriticalSection(&dfmemLock);
        qxHookUnload(); // there is something to be given back from now on
        lockReady.store(true, std::memory_order_release);
    });
}

bool dfmemLockReady() { return lockReady.load(std::memory_order_acquire); }

} // namespace brenvole
