#include "qxutil.h"

#include <algorithm>
#include <cstring>

void CopyMemoryFast(void *destination, const void *source, uint32_t count) {
    if (count != 0) { // memcpy takes no null, not even for no bytes
        std::memcpy(destination, source, count);
    }
}

void qxOSCopyMemorySafeFast(void *destination, const void *source, uint32_t count, uint32_t capacity) {
    count = std::min(count, capacity);
    if (count != 0) {
        std::memmove(destination, source, count); // two frames may have one buffer
    }
}
