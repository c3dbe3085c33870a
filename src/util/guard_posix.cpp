// Guarded sections over signals.
//
// A memory fault arrives as a signal on the thread that made it. Our handler recovers only for a thread that is
// inside a section, and only from faults that the system itself has raised; everything else goes on to the
// action that stood before ours, as if we weren't there.
//
// The section's body is called through a pointer that the optimiser can't see through, and the fences keep the
// arming and disarming stores on their side of it: otherwise plain reads, which "can't" end in our handler, may
// be moved out of the section and the stores around them deleted.
#include "guard.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <mutex>

#include <cerrno>
#include <cxxabi.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

struct Section {
    sigjmp_buf recovery;
    Section *outer;
};

// Innermost section of the thread. Its storage exists with the thread, so that the handler may read it: other
// thread-local storage may be made at its first use, by an allocation.
thread_local Section *volatile section __attribute__((tls_model("initial-exec"))) = nullptr;

constexpr int kFaults[] = {SIGSEGV, SIGBUS};
constexpr int kFaultCount = 2;

struct sigaction before[kFaultCount]; // what handled each fault before us; written once, before `armed`
std::atomic<bool> armed = false;
std::once_flag armOnce;

struct sigaction &beforeOf(int fault) {
    return before[fault == kFaults[0] ? 0 : 1];
}

// The default action, in the way that leaves the core dump and the exit status of the true cause.
void dieOf(int fault, bool raisedBySystem) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(fault, &action, nullptr);
    if (!raisedBySystem) {
        raise(fault); // a sent signal doesn't come again by itself
    }
} // back to the faulting instruction, which faults again

// Runs the earlier handler as the system would have: its mask, its one-shot flag, its form.
void passOn(int fault, siginfo_t *info, void *context) {
    const bool raisedBySystem = info->si_code > 0;
    struct sigaction &earlier = beforeOf(fault);
    const bool withInfo = (earlier.sa_flags & SA_SIGINFO) != 0;
    if (!withInfo && earlier.sa_handler == SIG_IGN && !raisedBySystem) {
        return;
    }
    if (!withInfo && (earlier.sa_handler == SIG_DFL || earlier.sa_handler == SIG_IGN)) {
        dieOf(fault, raisedBySystem); // the system doesn't let a fault of its own be ignored either
        return;
    }
    const struct sigaction action = earlier;
    if ((action.sa_flags & static_cast<int>(SA_RESETHAND)) != 0) {
        earlier.sa_handler = SIG_DFL;
        earlier.sa_flags &= ~(SA_SIGINFO | static_cast<int>(SA_RESETHAND));
    }
    sigset_t mask = action.sa_mask;
    sigset_t unmasked;
    if ((action.sa_flags & SA_NODEFER) == 0) {
        sigaddset(&mask, fault);
    }
    pthread_sigmask(SIG_BLOCK, &mask, &unmasked);
    if (withInfo) {
        action.sa_sigaction(fault, info, context);
    } else {
        action.sa_handler(fault);
    }
    pthread_sigmask(SIG_SETMASK, &unmasked, nullptr);
}

void onFault(int fault, siginfo_t *info, void *context) {
    Section *const inner = section;
    if (inner == nullptr || info->si_code <= 0) { // not ours, or sent by a process
        const int error = errno;
        passOn(fault, info, context);
        errno = error;
        return;
    }
    section = inner->outer;
    // Back to the mask of the faulting code: we may have been called by another handler, which runs with more
    // signals blocked than ours does.
    pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t *>(context)->uc_sigmask, nullptr);
    siglongjmp(inner->recovery, 1);
}

void arm() {
    struct sigaction action {};
    action.sa_sigaction = onFault;
    // ONSTACK: a host's stack overflow must reach its handler. NODEFER: leaving by a jump leaves no mask behind.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    for (int fault : kFaults) {
        sigaction(fault, nullptr, &beforeOf(fault));
    }
    for (int fault : kFaults) {
        sigaction(fault, &action, nullptr);
    }
    armed.store(true, std::memory_order_release);
}

// The library leaves the process: put back what stood before us, where we are still the one in place. The lowest
// priority that is ours to use, so that it runs behind the teardown of the heaps.
__attribute__((destructor(101))) void disarm() {
    if (!armed.load(std::memory_order_acquire)) {
        return;
    }
    for (int fault : kFaults) {
        struct sigaction now {};
        if (sigaction(fault, nullptr, &now) == 0 && (now.sa_flags & SA_SIGINFO) != 0 && now.sa_sigaction == onFault) {
            sigaction(fault, &beforeOf(fault), nullptr);
        }
    }
}

// Calls the body and catches exceptions; apart from the jump, so that no local is alive across it.
__attribute__((noinline)) bool runCatching(void (*body)(void *), void *context) {
    void (*volatile opaque)(void *) = body;
    try {
        opaque(context);
        return true;
    } catch (abi::__forced_unwind &) { // the thread is being cancelled, which nobody may stop
        section = section->outer;
        throw;
    } catch (...) {
        return false;
    }
}

} // namespace

__attribute__((noinline)) bool qxGuardRun(void (*body)(void *), void *context) {
    if (!armed.load(std::memory_order_acquire)) {
        std::call_once(armOnce, arm);
    }
    Section own;
    own.outer = section;
    if (sigsetjmp(own.recovery, 0) != 0) { // a fault; the handler has closed this section already
        return false;
    }
    section = &own;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const bool whole = runCatching(body, context);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    section = own.outer;
    return whole;
}

int qxReadForeign(const std::uintptr_t *from, int count, std::size_t size, void *to) {
    constexpr int kMost = 32; // pieces of one call; more than any caller has
    if (count <= 0 || count > kMost) {
        return count == 0 ? 0 : -1;
    }
    struct iovec pieces[kMost];
    for (int i = 0; i < count; ++i) {
        pieces[i] = {reinterpret_cast<void *>(from[i]), size};
    }
    struct iovec whole = {to, static_cast<std::size_t>(count) * size};
    const int error = errno;
    const ssize_t done = process_vm_readv(getpid(), &whole, 1, pieces, static_cast<unsigned long>(count), 0);
    const bool unreadable = done < 0 && errno == EFAULT;
    errno = error;
    if (done < 0) {
        return unreadable ? 0 : -1;
    }
    return static_cast<int>(static_cast<std::size_t>(done) / size);
}
