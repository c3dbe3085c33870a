// The end of the library's stay in the process.
#include "frames.h"

#include "local/local_heap.h"
#include "trace/trace.h"

int DllMain(void *, uint32_t reason, void *) {
    constexpr uint32_t kProcessDetach = 0;
    constexpr int kTrue = 1;
    if (reason == kProcessDetach) {
        brenvole::mainPoolDetach();
        brenvole::LHEAP_DropCache();
        brenvole::TraceClose("DllMainDetach"); // last: it tells what the others have left
    }
    return kTrue;
}
