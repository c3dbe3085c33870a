// The system calls DllMain itself, for a library that is one of its own.
#include "unload.h"

void qxHookUnload() {}

// The at-exit handlers of a library run with its unloading, behind its DllMain.
bool qxUnloadsBehindExit() { return false; }
