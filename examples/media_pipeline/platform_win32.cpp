#include "platform.h"

#include <cstdio>

#include <io.h>
#include <windows.h>

bool errorsGoToTerminal() { return _isatty(_fileno(stderr)) != 0; }

void setVariable(const char *name, const char *value) { SetEnvironmentVariableA(name, value); }
