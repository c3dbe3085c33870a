// The end of the library's stay in the process.
#include "local/local_heap.h"

#include <brenvole/dframe.h>

int DllMain(void *, uint32_t reason, void *) {
    constexpr uint32_t kProcessDetach = 0;
    constexpr int kTrue = 1;
    if (reason == kProcessDetach) {
        // Heap and pool go first, once there are any, then:
        brenvole::LHEAP_DropCache();
        // The trace closes last.
    }
    return kTrue;
}
