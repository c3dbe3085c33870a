// Guarded sections over the system's structured exception handling.
//
// A section is a frame on the stack with a handler of its own. The system asks the frames from the innermost on, so a
// handler inside a section, a message sink's for instance, gets its fault first, and a fault of a thread in no
// section never comes here. We install nothing, and nothing has to be put back.
#include "guard.h"

#include <windows.h>

namespace {

// C++ exceptions as the system sees them: of the compiler that this one is, and of the other one, which a message
// sink or another QXUtil may have been built by.
constexpr DWORD kExceptionOfMsvc = 0xE06D7363;
constexpr DWORD kExceptionOfGcc = 0x20474343;

// What ends a section: memory faults and exceptions. Anything else that is raised is somebody's who knows what it
// means, and a stack that has run over is the host's to look at.
bool isCaught(DWORD code) {
    return code == kExceptionOfMsvc || code == kExceptionOfGcc || code == EXCEPTION_ACCESS_VIOLATION ||
           code == EXCEPTION_GUARD_PAGE || code == EXCEPTION_IN_PAGE_ERROR || code == EXCEPTION_DATATYPE_MISALIGNMENT;
}

struct Call {
    void (*body)(void *);
    void *context;
};

// Called through a pointer that the optimiser can't see through: plain reads of the body "can't" fault, and would be
// moved out of the section otherwise.
void runCatching(Call *call, bool *whole) {
    void (*volatile opaque)(void *) = call->body;
    try {
        opaque(call->context);
        *whole = true;
    } catch (...) {
        *whole = false;
    }
}

} // namespace

#ifdef _MSC_VER

bool qxGuardRun(void (*body)(void *), void *context) {
    Call call{body, context};
    bool whole = false;
    __try {
        runCatching(&call, &whole);
    } __except (isCaught(GetExceptionCode()) ? EXCEPTION_EXECUTE_HANDLER : EXCEPTION_CONTINUE_SEARCH) {
        whole = false;
    }
    return whole;
}

#else

// The same where the compiler has no words for it: the frame below, whose handler unwinds to qxGuardFaulted.
extern "C" {
void qxGuardFrame(Call *call, bool *whole);
extern char qxGuardFaulted[];

void qxGuardCall(Call *call, bool *whole) { runCatching(call, whole); }

EXCEPTION_DISPOSITION qxGuardHandler(EXCEPTION_RECORD *record, void *frame, CONTEXT *,
                                     DISPATCHER_CONTEXT *dispatcher) {
    constexpr DWORD kUnwinding = EXCEPTION_UNWINDING | EXCEPTION_EXIT_UNWIND;
    if ((record->ExceptionFlags & kUnwinding) == 0 && isCaught(record->ExceptionCode)) {
        RtlUnwindEx(frame, qxGuardFaulted, record, nullptr, dispatcher->ContextRecord, dispatcher->HistoryTable);
    }
    return ExceptionContinueSearch;
}
}

asm(R"(
    .text
    .p2align 4
    .globl qxGuardFrame
    .def qxGuardFrame; .scl 2; .type 32; .endef
    .seh_proc qxGuardFrame
qxGuardFrame:
    pushq %rbp
    .seh_pushreg %rbp
    movq %rsp, %rbp
    .seh_setframe %rbp, 0
    subq $32, %rsp
    .seh_stackalloc 32
    .seh_endprologue
    .seh_handler qxGuardHandler, @except
    call qxGuardCall
    nop
    .globl qxGuardFaulted
qxGuardFaulted:
    addq $32, %rsp
    popq %rbp
    ret
    .seh_endproc
)");

bool qxGuardRun(void (*body)(void *), void *context) {
    Call call{body, context};
    bool whole = false; // stays so after a fault
    qxGuardFrame(&call, &whole);
    return whole;
}

#endif

// The system reads it for us, from our own process as from any other.
ForeignWord qxLookAtForeign(std::uintptr_t address, std::uint32_t expected) {
    const DWORD error = GetLastError();
    std::uint32_t word = 0;
    SIZE_T count = 0;
    const bool readable = ReadProcessMemory(GetCurrentProcess(), reinterpret_cast<const void *>(address), &word,
                                            sizeof word, &count) != 0 &&
                          count == sizeof word;
    SetLastError(error);
    return !readable ? ForeignWord::unreadable : word == expected ? ForeignWord::looksEqual : ForeignWord::differs;
}
