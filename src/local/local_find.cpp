// From a bare pointer to the descriptor of its block.
//
// A descriptor ends at a multiple of 16384, so the candidates for an address lie at fixed places below it. 17 of
// them are tried, the address's own piece of 16384 bytes and 16 more: a pointer may have been moved up the data
// by almost 272 KiB, further than any header or line of a picture moves it.
//
// The scan reads memory that nobody vouches for. For the usual pointer, into a block that we remember, it reads
// in place, and everything between descriptor and pointer is that block's own. For any other the system looks at
// each candidate first, and only what has a local block's first guard word is read in place. So no fault is raised,
// and it makes no difference which signals the thread blocks or what the host has made of its fault handlers.
#include "local_block.h"
#include "local_heap.h"
#include "util/guard.h"
#include "util/spread.h"

#include <array>

namespace brenvole {

namespace {

constexpr unsigned kTries = 17;
static_assert(kLocalReach == kTries * kDataAlignment - 1);
// More references than this on one block are taken for chance bits.
constexpr uint32_t kMostReferences = 8192;

// Where live and cached blocks lie; a hint only, see local_block.h. A note holds the block's data address in pieces
// of 16384 bytes and the length of its data in one word, so that reading it touches no block: a block that another
// thread is just releasing may be gone already. A block's note stands in any place of its bucket.
constexpr unsigned kBucketBits = 12; // 128 KiB in all; pages of it that no block needs are never touched
constexpr unsigned kPlaces = 4;      // of a bucket: some 8000 live blocks before many notes are pushed out
constexpr unsigned kLengthBits = 20; // more units than 32 bits of bytes hold; 44 bits are left for the address

using Bucket = std::array<std::atomic<uint64_t>, kPlaces>;
alignas(64) std::array<Bucket, std::size_t{1} << kBucketBits> notes; // two buckets to a cache line

Bucket &bucketOf(uint64_t dataPiece) { return notes[qxSpread(dataPiece) >> (64 - kBucketBits)]; }

// Length of the data that starts with this piece, in units of 8192 bytes, if we remember the block; else 0.
uint64_t rememberedLength(uint64_t dataPiece) {
    for (const std::atomic<uint64_t> &place : bucketOf(dataPiece)) {
        const uint64_t note = place.load(std::memory_order_acquire);
        if (note >> kLengthBits == dataPiece) {
            return note & ((uint64_t{1} << kLengthBits) - 1);
        }
    }
    return 0;
}

uint64_t dataPieceOf(const PHALLOC *descriptor) {
    return (reinterpret_cast<uintptr_t>(descriptor) + kDescriptorArea) / kDataAlignment;
}

// The i-th candidate; wraps below address 0, where nothing can be read.
uintptr_t candidateOf(uintptr_t address, unsigned i) {
    return address / kDataAlignment * kDataAlignment - kDescriptorArea - i * kDataAlignment;
}

// `own` is the address that the record was read from.
QX_READS_FOREIGN_MEMORY bool accepted(const volatile PHALLOC *record, uintptr_t own) {
    const auto references = static_cast<uint32_t>(record->lRefCount);
    return record->qwOffset == 0 && references >= 1 && references <= kMostReferences &&
           reinterpret_cast<uintptr_t>(record->pSelf) == own && localGuardsHold(record);
}

// Candidates, from the nearest on, that lie inside the block which holds `address`, if we remember that block;
// else 0.
unsigned candidatesInBlock(uintptr_t address) {
    const uint64_t piece = address / kDataAlignment;
    for (unsigned i = 0; i < kTries; ++i) {
        const uint64_t length = rememberedLength(piece - i);
        if (length != 0) {
            return (address - (piece - i) * kDataAlignment) / kDataUnit < length ? i + 1 : 0;
        }
    }
    return 0;
}

PHALLOC *scanInPlace(uintptr_t address, unsigned tries) {
    for (unsigned i = 0; i < tries; ++i) {
        auto *const record = reinterpret_cast<PHALLOC *>(candidateOf(address, i));
        if (accepted(record, reinterpret_cast<uintptr_t>(record))) {
            return record;
        }
    }
    return nullptr;
}

// Tries the candidates from `first` on that may be there or not.
PHALLOC *scanUnknown(uintptr_t address, unsigned first) {
    for (unsigned i = first; i < kTries; ++i) {
        const uintptr_t candidate = candidateOf(address, i);
        // A descriptor lies within one page, so the word stands for all of it.
        switch (qxLookAtForeign(candidate + offsetof(PHALLOC, dwGuard1), kLocalGuard1)) {
        case ForeignWord::unreadable: return nullptr; // the end of the scan
        case ForeignWord::differs: break;
        case ForeignWord::looksEqual:
            auto *const record = reinterpret_cast<PHALLOC *>(candidate);
            if (accepted(record, candidate)) {
                return record;
            }
        }
    }
    return nullptr;
}

} // namespace

QX_READS_FOREIGN_MEMORY bool localGuardsHold(const volatile PHALLOC *record) {
    return record->dwGuard1 == kLocalGuard1 && record->dwGuard2 == kLocalGuard2 && record->dwGuard3 == kLocalGuard3 &&
           record->dwGuard4 == kLocalGuard4 && record->dwGuard5 == kLocalGuard5 && record->dwGuard6 == kLocalGuard6;
}

void localRemember(const PHALLOC *descriptor) {
    const uint64_t piece = dataPieceOf(descriptor);
    const uint64_t length = (descriptor->qwSize + kDataUnit - 1) / kDataUnit;
    const uint64_t note = piece << kLengthBits | length;
    Bucket &bucket = bucketOf(piece);
    for (std::atomic<uint64_t> &place : bucket) {
        const uint64_t seen = place.load(std::memory_order_relaxed);
        if (seen >> kLengthBits == piece || seen == 0) { // a block from the cache has its note still
            place.store(note, std::memory_order_release);
            return;
        }
    }
    bucket[piece % kPlaces].store(note, std::memory_order_release); // pushes another block's note out
}

void localForget(const PHALLOC *descriptor) {
    const uint64_t piece = dataPieceOf(descriptor);
    for (std::atomic<uint64_t> &place : bucketOf(piece)) {
        if (place.load(std::memory_order_relaxed) >> kLengthBits == piece) {
            place.store(0,
                        std::memory_order_release); // may drop a note that has come between: that costs time, no more
        }
    }
}

PHALLOC *LHEAP_Find(uintptr_t address) {
    PHALLOC *volatile found = nullptr;
    qxGuarded([&] {
        const unsigned tries = candidatesInBlock(address);
        found = tries != 0 ? scanInPlace(address, tries) : nullptr;
        if (found == nullptr) {
            found = scanUnknown(address, tries);
        }
    });
    return found;
}

} // namespace brenvole
