// Regions are the system's own: reserved and committed in one piece, and it knows their lengths.
#include "qxutil.h"

#include <windows.h>

void *qxOSVirtualAlloc(uint64_t size) {
    return VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE); // null for a size of 0
}

// An address that isn't the base of a region is refused by the system. In exit() no other thread is left.
void qxOSVirtualFree(void *base) {
    if (base != nullptr) {
        VirtualFree(base, 0, MEM_RELEASE);
    }
}
