/** @file
 *  Which frames are alive, for those who hold a number that may be a frame's address and want to look at it. The
 *  table is a hint: a frame that found no place in it counts as unknown. Who enters a frame holds dfmemLock; no other
 * is taken. */
#ifndef BRENVOLE_LIVE_FRAMES_H
#define BRENVOLE_LIVE_FRAMES_H

#include <cstdint>

namespace brenvole {

/** Enters a frame that is complete, and takes it out before its memory goes. */
void liveFrameEnter(uintptr_t frame);
void liveFrameLeave(uintptr_t frame);

/** In a forked child: nobody reads a frame there whom the fork hasn't waited for. */
void liveFramesForked();

/** The low half of the third word of a frame's link, read while the frame can't go.
 *  @param owner  any value
 *  @return 0 unless a frame is known to live there */
uint32_t liveFrameLinkWord(uint64_t owner);

} // namespace brenvole

#endif
