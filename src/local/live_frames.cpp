#include "live_frames.h"

#include "util/guard.h"
#include "util/spread.h"

#include <brenvole/dframe.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <span>

namespace brenvole {

namespace {

// A place holds a frame's address, or 0. Frames are 4-aligned, so the lowest bit is free: set, somebody is reading
// the frame, for some nanoseconds, and it must not go. The other bits are inverted, so that a tool that looks for
// leaks doesn't take the table for somebody who holds the frames.
constexpr uint64_t kPinned = 1;
constexpr uint64_t kInverted = ~kPinned;
constexpr unsigned kPlaceBits = 16; // 512 KiB; pages of it that no frame needs are never touched
constexpr std::size_t kReach = 32;  // places, from a frame's own on, in which it may stand: tens of thousands of
                                    // frames before the first finds none
constinit std::array<std::atomic<uint64_t>, (std::size_t{1} << kPlaceBits) + kReach> places{};

std::span<std::atomic<uint64_t>> placesOf(uint64_t frame) {
    return std::span(places).subspan(qxSpread(frame) >> (64 - kPlaceBits), kReach);
}

uint64_t entryOf(uint64_t frame) { return frame ^ kInverted; }

// Bytes 16 to 19 of the frame, which its holder may be changing: whole at least, since they are 4-aligned.
QX_READS_FOREIGN_MEMORY uint32_t linkWordOf(uint64_t frame) {
    constexpr std::size_t kThirdWord = offsetof(DFRAME, lpLink) + 2 * sizeof(void *);
    return *reinterpret_cast<const volatile uint32_t *>(frame + kThirdWord);
}

} // namespace

void liveFrameEnter(uintptr_t frame) {
    for (std::atomic<uint64_t> &place : placesOf(frame)) {
        if (place.load(std::memory_order_relaxed) == 0) { // who else writes leaves an empty place alone
            place.store(entryOf(frame), std::memory_order_release);
            return;
        }
    }
}

void liveFrameLeave(uintptr_t frame) {
    const uint64_t entry = entryOf(frame);
    for (std::atomic<uint64_t> &place : placesOf(frame)) {
        if ((place.load(std::memory_order_relaxed) & ~kPinned) == entry) {
            uint64_t seen = entry; // a reader puts this back when it is done
            while (!place.compare_exchange_weak(seen, 0, std::memory_order_acquire, std::memory_order_relaxed)) {
                seen = entry;
            }
            return;
        }
    }
}

void liveFramesForked() {
    for (std::atomic<uint64_t> &place : places) {
        const uint64_t seen = place.load(std::memory_order_relaxed);
        if ((seen & kPinned) != 0) {
            place.store(seen & ~kPinned, std::memory_order_relaxed);
        }
    }
}

uint32_t liveFrameLinkWord(uint64_t owner) {
    if (owner == 0 || owner % alignof(DFRAME) != 0) {
        return 0;
    }
    const uint64_t entry = entryOf(owner);
    for (std::atomic<uint64_t> &place : placesOf(owner)) {
        uint64_t seen = entry;
        // Another reader's pin goes in a moment.
        while (!place.compare_exchange_weak(seen, entry | kPinned, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            if ((seen & ~kPinned) != entry) {
                break;
            }
            seen = entry;
        }
        if (seen == entry) {
            const uint32_t word = linkWordOf(owner);
            place.store(entry, std::memory_order_release);
            return word;
        }
    }
    return 0;
}

} // namespace brenvole
