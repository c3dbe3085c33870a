#include "platform.h"

#include <cstdlib>

void setVariable(const char *name, const char *value) {
    setenv(name, value, 1); // NOLINT(concurrency-mt-unsafe): before there are threads
}
