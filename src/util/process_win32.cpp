// The process: its number and its environment.
#include "platform.h"
#include "qxutil.h"
#include "variable_win32.h"

#include <windows.h>

uint32_t qxOSGetProcessId(void) { return GetCurrentProcessId(); }

const char *qxEnvironment(const char *name) noexcept {
    const char *const value = qxReadVariable(name);
    return value != nullptr && *value != 0 ? value : nullptr;
}
