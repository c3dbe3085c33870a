#include "exit.h"

// At the end of a process the system ends all other threads first, and notifies the libraries then.
void qxHookExit() {}

bool qxInExit() { return false; }

bool qxHasOtherThreads() { return false; }
