#include "exit.h"

#include "once.h"

#include <atomic>

#include <sys/stat.h>

// Of the C++ ABI, which has no header for them: the first registers an at-exit handler in the name of `owner`, the
// second runs and forgets those of one owner.
extern "C" {
int __cxa_atexit(void (*handler)(void *), void *argument,
                 void *owner) noexcept; // NOLINT(bugprone-reserved-identifier)
void __cxa_finalize(void *owner);       // NOLINT(bugprone-reserved-identifier)
}

namespace {

constinit QXOnce hookOnce = 0;
constinit std::atomic<bool> inExit = false;

// Owns the handler in the place of the library. The handlers that the library owns run at its unloading as well; this
// one runs in exit() alone.
char owner;

// The last of the library's destructors, as the others ask qxInExit. No handler may stay registered after the
// library has been unloaded.
__attribute__((destructor(101))) void forgetHandler() {
    if (qxDone(hookOnce)) {
        const bool before = inExit; // the handler runs once more
        __cxa_finalize(&owner);
        inExit = before;
    }
}

} // namespace

void qxHookExit() {
    qxOnce(hookOnce, [] { __cxa_atexit([](void *) { inExit = true; }, nullptr, &owner); });
}

bool qxInExit() { return inExit; }

bool qxHasOtherThreads() {
    constexpr nlink_t kAlone = 3; // links of the directory: two of its own, one for each thread
    struct stat tasks {};
    return stat("/proc/self/task", &tasks) != 0 || tasks.st_nlink != kAlone;
}
