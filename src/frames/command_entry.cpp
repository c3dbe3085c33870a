// The one door for frame work: a command word and three arguments.
#include "frames.h"

#include "local/dfmem_lock.h"
#include "local/fork_locks.h"
#include "trace/trace.h"
#include "util/exit.h"
#include "util/once.h"

namespace brenvole {

uint64_t frameRefuse(uint32_t status, const char *text) {
    ErrOut(text, status);
    return status;
}

void frameReportOverwrite(const DFRAME *frame, const char *text) {
    if (frameOverwritten(frame)) {
        ErrFmtOut(QX_ERROR, 0, 0, "ERROR(dfmem): %s\n", text);
    }
}

namespace {

constexpr uint32_t kCommandBits = 0xFF;

constinit QXOnce startOnce = 0;

// What there has to be before any command.
void start() {
    qxOnce(startOnce, [] {
        dfmemLockCreate();
        forkHook();
        qxHookExit();
    });
}

// True for the commands whose ppDF leads to a frame. For some of the others it leads to a figure, or anywhere.
bool takesFrame(uint32_t number) {
    return (number >= DFRAME_ISLOCAL && number <= DFRAME_ISBRENVOLE) || number == DFRAME_FINDALLOC;
}

void traceCommand(uint32_t command, int64_t param1, uintptr_t param2, PDFRAME *ppDF, const char *msgarea,
                  uint32_t line) {
    const DFRAME *volatile frame = nullptr;
    const void *volatile data = nullptr;
    if (takesFrame(command & kCommandBits) && ppDF != nullptr) {
        qxGuarded([&] { // the command may refuse without having looked at the frame
            frame = *ppDF;
            data = frame != nullptr ? frame->lpData : nullptr;
        });
    }
    TraceCall(command, param1, tracePointer(param2), static_cast<const void *>(frame),
              static_cast<const void *>(data), msgarea, line);
}

} // namespace

} // namespace brenvole

using namespace brenvole;

uint64_t DFrameMem(uint32_t command, int64_t param1, uintptr_t param2, PDFRAME *ppDF) {
    return DFrameMemTrace(command, param1, param2, ppDF, nullptr, 0);
}

uint64_t DFrameMemTrace(uint32_t command, int64_t param1, uintptr_t param2, PDFRAME *ppDF, const char *msgarea,
                        uint32_t line) {
    start(); // first, whatever the command
    if (TraceIsEnabled() != 0) [[unlikely]] {
        traceCommand(command, param1, param2, ppDF, msgarea, line);
    }
    switch (command & kCommandBits) {
    case DFRAME_TOTAL: return commandTotal(command);
    case DFRAME_LARGEST: return commandLargest(command, ppDF);
    case DFRAME_GRANULARITY: return mainGranularity;
    case DFRAME_SMALLEST: return mainSmallest;
    case DFRAME_RESET: return commandReset(command, param1);
    case DFRAME_ISLOCAL: return commandIsLocal(ppDF);
    case DFRAME_ALLOC: return commandAlloc(command, param1, param2, ppDF, msgarea, line);
    case DFRAME_FREE: return commandFree(ppDF, msgarea, line);
    case DFRAME_ADDREF: return commandAddRef(ppDF, msgarea, line);
    case DFRAME_COPY: return commandCopy(param2, ppDF, msgarea, line);
    case DFRAME_DUP_FREE: return commandDupFree(param2, ppDF, msgarea, line);
    case DFRAME_SWAP: return commandSwap(param1, param2, ppDF, msgarea, line);
    case DFRAME_RESIZE: return commandResize(param1, ppDF, msgarea, line);
    case DFRAME_FIXALLOC: return commandFixAlloc(ppDF, msgarea, line);
    case DFRAME_ISBRENVOLE: return commandIsBrenvole(ppDF);
    case DFRAME_FINDALLOC: return commandFindAlloc(ppDF, msgarea, line);
    case DFRAME_CLOSE: return commandClose(command);
    case DFRAME_TOTALAVAIL: return commandTotalAvail(command, ppDF);
    case DFRAME_TOTALUSED: return commandTotalUsed(command, ppDF);
    case DFRAME_DUMP: return commandDump(command);
    default: return frameRefuse(DFMEM_E_FAILED, "Unknown DFrameMem Command(0x%lX)");
    }
}
