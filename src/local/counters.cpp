#include "counters.h"

namespace brenvole {

std::atomic<uint64_t> dframes = 0;
std::atomic<uint64_t> dframe_bytes = 0;
std::atomic<uint64_t> local_allocs = 0;
std::atomic<uint32_t> localBytes = 0;
std::atomic<uint64_t> phys_allocs = 0;

} // namespace brenvole
