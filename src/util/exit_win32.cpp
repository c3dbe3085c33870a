#include "exit.h"

// The system ends all other threads before it tells a library of the process's end.
void qxHookExit() {}

bool qxInExit() { return false; }

bool qxHasOtherThreads() { return false; }
