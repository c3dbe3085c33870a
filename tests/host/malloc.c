/* A C library's allocator whose books the host has damaged: preloaded, it faults once it is told to. */
#include <stddef.h>

extern void *__libc_malloc(size_t size);

volatile int mallocFaults = 0;

void *malloc(size_t size) {
    if (mallocFaults) { *(volatile int *)8 = 0; }
    return __libc_malloc(size);
}
