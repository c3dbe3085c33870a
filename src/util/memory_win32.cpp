// The general allocator. It stands alone in its unit so that a program can put another one in its place.
#include "qxutil.h"

#include <cstdlib>

void *QXAlloc(uint32_t size) { return std::malloc(size == 0 ? 1 : size); }

void QXFree(void *block) { std::free(block); }
