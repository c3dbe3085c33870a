#include "allocating.h"

#include "qxutil.h"

// The system's allocator gives its lock back when a fault unwinds it, and reports a damaged heap itself.
QXAllocating::QXAllocating() noexcept {}

QXAllocating::~QXAllocating() {}

int32_t qxOSInAllocator(void) { return 0; }
