#include "qxutil.h"

#include <ctime>

uint64_t qxOSGetTimeMs(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1'000'000u;
}
