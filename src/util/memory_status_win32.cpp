#include "qxutil.h"

#include <windows.h>

void qxOSMemoryStatus(uint64_t *totalPhys, uint64_t *availPhys) {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    const bool known = GlobalMemoryStatusEx(&status) != 0;
    if (totalPhys != nullptr) {
        *totalPhys = known ? status.ullTotalPhys : 0;
    }
    if (availPhys != nullptr) {
        *availPhys = known ? status.ullAvailPhys : 0;
    }
}
