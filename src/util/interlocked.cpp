#include "qxutil.h"

#include <atomic>

int32_t qxOSInterlockedIncrement(int32_t *word) {
    return static_cast<int32_t>(static_cast<uint32_t>(std::atomic_ref<int32_t>(*word).fetch_add(1)) + 1); // may wrap
}

int32_t qxOSInterlockedDecrement(int32_t *word) {
    return static_cast<int32_t>(static_cast<uint32_t>(std::atomic_ref<int32_t>(*word).fetch_sub(1)) - 1);
}
