#include "platform.h"

#include <cstdlib>

#include <unistd.h>

bool errorsGoToTerminal() { return isatty(STDERR_FILENO) != 0; }

void setVariable(const char *name, const char *value) {
    setenv(name, value, 1); // NOLINT(concurrency-mt-unsafe): before there are threads
}
