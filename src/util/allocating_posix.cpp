#include "allocating.h"

#include <cstdint>

namespace {

// Depth of such scopes on the thread. Its storage exists with the thread, so that a fault handler may read it.
constinit thread_local int32_t depth __attribute__((tls_model("initial-exec"))) = 0;

} // namespace

QXAllocating::QXAllocating() noexcept { ++depth; }

QXAllocating::~QXAllocating() { --depth; }

bool qxAllocatingHere() noexcept { return depth != 0; }
