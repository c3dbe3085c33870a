/** @file
 *  General allocators beside the C library's own, all in one process: each is loaded into a scope of its own, where
 *  it takes nobody's `malloc` but its own. */
#ifndef BRENVOLE_BENCH_ALLOCATORS_H
#define BRENVOLE_BENCH_ALLOCATORS_H

#include <cstddef>
#include <string>

struct Allocator {
    void *(*take)(std::size_t);
    void *(*takeCleared)(std::size_t, std::size_t);
    void (*giveBack)(void *);
};

enum class AllocatorKind { CLibrary, Tcmalloc, Jemalloc, Mimalloc };

/** The allocator, loaded at the first call, and never unloaded; null if it can't be had. Any thread. */
const Allocator *allocatorGet(AllocatorKind kind);

/** Starts the program again, once, with room for libraries that are loaded later and keep variables for each thread
 *  in the block that the C library hands out at the start. Returns if that has been done, or can't be done. */
void allocatorsMakeRoom(char **argv);

/** Names and versions of the allocators that can be had, for the head of the table. */
std::string allocatorVersions();

#endif
