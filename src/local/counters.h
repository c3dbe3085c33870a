/** @file
 *  Counts of what is alive in the process, for the reports. They survive every heap. All are read without a lock. */
#ifndef BRENVOLE_COUNTERS_H
#define BRENVOLE_COUNTERS_H

#include <atomic>
#include <cstdint>

namespace brenvole {

extern std::atomic<uint64_t> dframes;      // frame headers; changed under dfmemLock
extern std::atomic<uint64_t> dframe_bytes; // their record sizes; changed under dfmemLock
extern std::atomic<uint64_t> local_allocs; // local blocks, the cached one included; changed under dfmemLock
extern std::atomic<uint32_t> localBytes;   // their sizes, wraps at 32 bits; changed under dfmemLock
extern std::atomic<uint64_t> phys_allocs;  // blocks of all phys heaps; each heap changes it under its own lock

} // namespace brenvole

#endif
