// The process: its number and its environment.
#include "platform.h"
#include "qxutil.h"

#include <cstdlib>

#include <unistd.h>

uint32_t qxOSGetProcessId(void) { return static_cast<uint32_t>(getpid()); }

const char *qxEnvironment(const char *name) noexcept {
    const char *value = secure_getenv(name);
    return value != nullptr && *value != 0 ? value : nullptr;
}
