/** @file
 *  The library's pool, as this program uses it: made before the first frame, watched, and ended. */
#ifndef MEDIA_PIPELINE_FRAME_POOL_H
#define MEDIA_PIPELINE_FRAME_POOL_H

#include <cstdint>

/** Bytes; all 0 without a pool. */
struct PoolFigures {
    uint64_t total = 0;
    uint64_t largestFree = 0;
    uint64_t used = 0;
};

/** Makes the pool; before any frame. @return false if the library can't, it has then logged why */
bool framePoolOpen(uint64_t bytes);
PoolFigures framePoolFigures();
/** Ends the pool, if there is one; after the last frame. */
void framePoolClose();

#endif
