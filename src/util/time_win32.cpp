#include "qxutil.h"

#include <windows.h>

uint64_t qxOSGetTimeMs(void) { return GetTickCount64(); }
