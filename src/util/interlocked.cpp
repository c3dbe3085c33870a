#include "qxutil.h"

#include <atomic>

int32_t qxOSInterlockedIncrement(int32_t *word) { return std::atomic_ref<int32_t>(*word).fetch_add(1) + 1; }

int32_t qxOSInterlockedDecrement(int32_t *word) { return std::atomic_ref<int32_t>(*word).fetch_sub(1) - 1; }
