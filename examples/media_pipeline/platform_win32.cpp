#include "platform.h"

#include <windows.h>

void setVariable(const char *name, const char *value) { SetEnvironmentVariableA(name, value); }
