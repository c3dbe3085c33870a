#include "allocating.h"
#include "qxutil.h"

int32_t qxOSInAllocator(void) { return qxAllocatingHere() ? 1 : 0; }
