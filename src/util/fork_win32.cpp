#include "fork.h"

void qxHookFork() {} // processes don't fork here
