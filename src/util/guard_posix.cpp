// Guarded sections over signals.
//
// A memory fault arrives as a signal on the thread that made it. Our handler recovers only for a thread that is
// inside a section, and only from faults that the system itself has raised; everything else goes on to the
// action that stood before ours, as if we weren't there. Two kinds of faults inside a section are the host's all the
// same: one in the C library's allocator, whose lock a jump would leave held, and one in a signal handler of the
// host's that has interrupted the section.
//
// The section's body is called through a pointer that the optimiser can't see through, and the fences keep the
// arming and disarming stores on their side of it: otherwise plain reads, which "can't" end in our handler, may
// be moved out of the section and the stores around them deleted.
#include "guard.h"

#include "allocating.h"
#include "exit.h"
#include "once.h"
#include "qxutil.h"

#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>

#include <cxxabi.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#pragma weak qxOSInAllocator // another QXUtil may have none

namespace {

struct Section {
    sigjmp_buf recovery;
    Section *outer;
    uintptr_t end; // of the stack frame that runs it: where its caller's begins
};

// Innermost section of the thread. Its storage exists with the thread, so that the handler may read it: other
// thread-local storage may be made at its first use, by an allocation.
thread_local Section *volatile section __attribute__((tls_model("initial-exec"))) = nullptr;

constexpr int kFaults[] = {SIGSEGV, SIGBUS};
constexpr int kFaultCount = 2;

// What handled a fault before us; the action is written once, before `armed`.
struct Earlier {
    struct sigaction action = {};
    std::atomic<bool> used = false; // a one-shot handler has had its shot
};
constinit Earlier earlierActions[kFaultCount];
constinit std::atomic<bool> armed = false;
constinit QXOnce armOnce = 0;

Earlier &earlierOf(int fault) { return earlierActions[fault == kFaults[0] ? 0 : 1]; }

// The default action, in the way that leaves the core dump and the exit status of the true cause.
void dieOf(int fault, bool raisedBySystem) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(fault, &action, nullptr);
    if (!raisedBySystem) {
        raise(fault); // a sent signal doesn't come again by itself
    }
} // back to the faulting instruction, which faults again

// True if the function can be read, or is none.
bool isThere(void (*handler)(int)) {
    constexpr std::uintptr_t kWord = sizeof(std::uint32_t);
    const auto at = reinterpret_cast<std::uintptr_t>(handler);
    return handler == SIG_DFL || handler == SIG_IGN ||
           qxLookAtForeign(at / kWord * kWord, 0) != ForeignWord::unreadable;
}

// Runs the earlier handler as the system would have: its mask, its one-shot flag, its form.
void passOn(int fault, siginfo_t *info, void *context) {
    const bool raisedBySystem = info->si_code > 0;
    Earlier &earlier = earlierOf(fault);
    const struct sigaction &action = earlier.action;
    const bool withInfo = (action.sa_flags & SA_SIGINFO) != 0;
    const bool oneShot = (action.sa_flags & static_cast<int>(SA_RESETHAND)) != 0;
    if (!withInfo && action.sa_handler == SIG_IGN && !raisedBySystem) {
        return;
    }
    // The system doesn't let a fault of its own be ignored. A library that has been unloaded may have left its
    // handler.
    const bool defaultAction =
        (!withInfo && (action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN)) || !isThere(action.sa_handler);
    if (defaultAction || (oneShot && earlier.used.exchange(true))) {
        dieOf(fault, raisedBySystem);
        return;
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

// ---- whose fault it is ------------------------------------------------------------------------------------------

struct Way {
    uintptr_t fault; // the instruction that faulted
    uintptr_t end;   // of the section's frame
    bool begun = false;
    bool handler = false; // a signal handler was running between the two
    bool passed = false;  // beyond the section
    bool arrived = false; // by way of its frame
};

// One frame of the stack, from our own handler outwards.
_Unwind_Reason_Code lookAtFrame(_Unwind_Context *frame, void *context) {
    Way &way = *static_cast<Way *>(context);
    int interrupted = 0; // by a signal
    const uintptr_t at = _Unwind_GetIPInfo(frame, &interrupted);
    if (!way.begun) { // what stands before is how the fault came to us
        way.begun = interrupted != 0 && at == way.fault;
        return _URC_NO_REASON;
    }
    way.handler = interrupted != 0;
    way.passed = _Unwind_GetCFA(frame) >= way.end;
    way.arrived = _Unwind_GetCFA(frame) == way.end;
    return way.handler || way.passed ? _URC_END_OF_STACK : _URC_NO_REASON;
}

// The same for a jump to nowhere, from which no way leads up: looks for the frame that the system lays down for a
// handler. Such frames may be left over from earlier signals, which is why this is the last resort.
QX_READS_FOREIGN_MEMORY bool handlerFrameBetween(uintptr_t stack, uintptr_t end, uintptr_t restorer) {
    constexpr uintptr_t kWord = sizeof(uintptr_t);
    for (uintptr_t at = stack / kWord * kWord; at < end; at += kWord) {
        if (*reinterpret_cast<const volatile uintptr_t *>(at) == restorer) {
            return true;
        }
    }
    return false;
}

// True if a signal handler has interrupted the section, and the fault is its own, or if the host has left the section
// by a jump of its own. Walking up the stack takes some ten microseconds. It acquires no lock where the C library
// finds unwind tables without one (glibc 2.35 and newer).
bool isOfTheHost(const ucontext_t &context, Section *inner, uintptr_t restorer) {
    const auto stack = static_cast<uintptr_t>(context.uc_mcontext.gregs[REG_RSP]);
    Way way{static_cast<uintptr_t>(context.uc_mcontext.gregs[REG_RIP]), inner->end};
    if (stack >= way.end) {
        return true; // on a stack of its own
    }
    section = nullptr; // a fault on the way, over a stack that has been overwritten, is not for us to recover from
    constexpr uintptr_t kWord = sizeof(uint32_t);
    if (qxLookAtForeign(way.fault / kWord * kWord, 0) == ForeignWord::unreadable) {
        way.handler = handlerFrameBetween(stack, way.end, restorer);
    } else {
        _Unwind_Backtrace(lookAtFrame, &way);
    }
    if (way.passed && !way.arrived && !way.handler) {
        return true; // the section is no more, and stays closed
    }
    section = inner;
    return way.handler;
}

bool isOfTheAllocator() { return qxAllocatingHere() || (qxOSInAllocator != nullptr && qxOSInAllocator() != 0); }

void onFault(int fault, siginfo_t *info, void *context) {
    Section *const inner = section;
    if (inner == nullptr || info->si_code <= 0 || // not ours, or sent by a process
        isOfTheAllocator() ||
        isOfTheHost(*static_cast<ucontext_t *>(context), inner,
                    reinterpret_cast<uintptr_t>(__builtin_return_address(0)))) {
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

bool isOurs(const struct sigaction &action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == onFault;
}

void arm() {
    _Unwind_Backtrace([](_Unwind_Context *, void *) { return _URC_END_OF_STACK; }, nullptr); // makes its tables
    for (int fault : kFaults) {
        struct sigaction now {};
        sigaction(fault, nullptr, &now);
        if (!isOurs(now)) { // a child that was forked in the midst of this finds itself
            earlierOf(fault).action = now;
        }
    }
    for (int fault : kFaults) {
        const struct sigaction &earlier = earlierOf(fault).action;
        struct sigaction action {};
        action.sa_sigaction = onFault;
        // ONSTACK: a host's stack overflow must reach its handler. NODEFER: a jump out leaves no mask behind.
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER | (earlier.sa_flags & SA_RESTART);
        if ((earlier.sa_flags & SA_SIGINFO) == 0 && earlier.sa_handler == SIG_IGN) {
            action.sa_flags |= SA_RESTART; // an ignored signal interrupts nothing
        }
        sigaction(fault, &action, nullptr);
    }
    armed.store(true, std::memory_order_release);
}

// The library leaves the process: put back what stood before us, where we are still the one in place. The lowest
// priority that is ours to use, so that it runs behind the teardown of the heaps.
__attribute__((destructor(101))) void disarm() {
    if (!armed.load(std::memory_order_acquire) || (qxInExit() && qxHasOtherThreads())) {
        return; // at the end of the process other threads may still be in sections
    }
    for (int fault : kFaults) {
        struct sigaction now {};
        if (sigaction(fault, nullptr, &now) == 0 && isOurs(now)) {
            sigaction(fault, &earlierOf(fault).action, nullptr);
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
        qxOnce(armOnce, arm);
    }
    Section own;
    own.outer = section;
    own.end = reinterpret_cast<uintptr_t>(__builtin_dwarf_cfa());
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

// The system's compare-and-requeue of sleepers looks at a word before it does anything, tells apart a word that
// differs from one that can't be read, and has nothing to do for 0 sleepers. It needs no right that any program
// lacks: every lock is made of such calls.
ForeignWord qxLookAtForeign(std::uintptr_t address, std::uint32_t expected) {
    static std::uint32_t nobodySleepsHere = 0;
    const int error = errno;
    const long none = syscall(SYS_futex, address, FUTEX_CMP_REQUEUE_PRIVATE, 0, nullptr, &nobodySleepsHere, expected);
    const int refusal = none < 0 ? errno : 0;
    errno = error;
    return refusal == EFAULT   ? ForeignWord::unreadable
           : refusal == EAGAIN ? ForeignWord::differs
                               : ForeignWord::looksEqual;
}
