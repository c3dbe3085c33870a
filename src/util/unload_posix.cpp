// This system calls no DllMain. A destructor of the library does, which runs at dlclose and at the end of the
// process behind the host's own at-exit handlers and static destructors: those may still release frames.
#include "unload.h"

#include <brenvole/dframe.h>

namespace {

constexpr uint32_t kProcessDetach = 0;

__attribute__((destructor)) void detach() { DllMain(nullptr, kProcessDetach, nullptr); }

} // namespace

void qxHookUnload() {} // that a command names this unit is what brings it into a static link

bool qxUnloadsBehindExit() { return true; }
