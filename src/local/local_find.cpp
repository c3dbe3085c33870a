// From a bare pointer to the descriptor of its block.
//
// A descriptor ends at a multiple of 16384, so the candidates for an address lie at fixed places below it. 17 of
// them are tried, the address's own piece of 16384 bytes and 16 more: a pointer may have been moved up the data
// by almost 272 KiB, further than any header or line of a picture moves it.
//
// The usual pointer lies in a block that we remember. Then that block is the answer, and nothing between its
// descriptor and the pointer is looked at: data may hold what looks like a descriptor, made up in a hostile media
// file, or left over from an earlier block in the same place.
//
// Any other pointer is scanned for, in memory that nobody vouches for. The system looks at each candidate first, and
// only what has a local block's first guard word is read in place. So no fault is raised, and it makes no difference
// which signals the thread blocks or what the host has made of its fault handlers.
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

// Where live and cached blocks lie, see local_block.h. A note holds the block's data address in pieces
// of 16384 bytes and the length of its data in one word, so that reading it touches no block: a block that another
// thread is just releasing may be gone already. A block has one note, in any place of its
// bucket.
constexpr unsigned kBucketBits = 14; // 1 MiB in all; pages of it that no block needs are never touched
constexpr unsigned kPlaces = 8; // of a bucket, a line of the cache: tens of thousands of live blocks before notes
                                // are pushed out
constexpr unsigned kLengthBits = 20; // more units than 32 bits of bytes hold; 44 bits are left for the address
constexpr uint64_t kLengthMask = (uint64_t{1} << kLengthBits) - 1;

using Bucket = std::array<std::atomic<uint64_t>, kPlaces>;
alignas(64) constinit std::array<Bucket, std::size_t{1} << kBucketBits> notes{};

Bucket &bucketOf(uint64_t dataPiece) { return notes[qxSpread(dataPiece) >> (64 - kBucketBits)]; }

// The note of the block whose data starts with this piece, or 0.
uint64_t noteOf(uint64_t dataPiece) {
    for (const std::atomic<uint64_t> &place : bucketOf(dataPiece)) {
        const uint64_t note = place.load(std::memory_order_acquire);
        if (note >> kLengthBits == dataPiece) {
            return note;
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

// True if the note's block has data at the address.
bool notesData(uint64_t note, uintptr_t address) {
    const uint64_t start = (note >> kLengthBits) * kDataAlignment;
    return note != 0 && address >= start && (address - start) / kDataUnit < (note & kLengthMask);
}

// The descriptor of the block which has data at the address, if there is a note of it and the address is within
// reach; else null.
PHALLOC *notedAround(uintptr_t address) {
    const uint64_t piece = address / kDataAlignment;
    for (unsigned i = 0; i < kTries; ++i) {
        const uint64_t note = noteOf(piece - i);
        if (note != 0) { // blocks don't overlap: one that begins lower ends in front of this one
            return notesData(note, address) ? reinterpret_cast<PHALLOC *>(candidateOf(address, i)) : nullptr;
        }
    }
    return nullptr;
}

// True if the candidate lies inside the data of a block that we know: then it is data, or what an earlier block has
// left there. Looks at all notes, since a long block may begin anywhere below; asked only of what passes for a
// descriptor.
bool liesInData(uintptr_t candidate) {
    for (const Bucket &bucket : notes) {
        for (const std::atomic<uint64_t> &place : bucket) {
            if (notesData(place.load(std::memory_order_acquire), candidate)) {
                return true;
            }
        }
    }
    return false;
}

// For an address that no note covers: it lies in a block that we don't remember, or beyond the end of one, or in
// none.
PHALLOC *scan(uintptr_t address) {
    for (unsigned i = 0; i < kTries; ++i) {
        const uintptr_t candidate = candidateOf(address, i);
        // A descriptor lies within one page, so the word stands for all of it.
        switch (qxLookAtForeign(candidate + offsetof(PHALLOC, dwGuard1), kLocalGuard1)) {
        case ForeignWord::unreadable: return nullptr; // the end of the scan
        case ForeignWord::differs: break;
        case ForeignWord::looksEqual:
            auto *const record = reinterpret_cast<PHALLOC *>(candidate);
            if (accepted(record, candidate) && !liesInData(candidate)) {
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
    Bucket &bucket = bucketOf(piece);
    std::atomic<uint64_t> *free = &bucket[piece % kPlaces]; // pushes another block's note out, unless there is room
    for (std::atomic<uint64_t> &place : bucket) {
        const uint64_t seen = place.load(std::memory_order_relaxed);
        if (seen >> kLengthBits == piece) { // a block from the cache has its note still
            free = &place;
            break;
        }
        if (seen == 0) {
            free = &place;
        }
    }
    free->store(piece << kLengthBits | length, std::memory_order_release);
}

void localForget(const PHALLOC *descriptor) {
    const uint64_t piece = dataPieceOf(descriptor);
    for (std::atomic<uint64_t> &place : bucketOf(piece)) {
        uint64_t seen = place.load(std::memory_order_relaxed);
        if (seen >> kLengthBits == piece) { // unless another block's note has pushed it out meanwhile
            place.compare_exchange_strong(seen, 0, std::memory_order_release, std::memory_order_relaxed);
        }
    }
}

PHALLOC *LHEAP_Find(uintptr_t address) {
    PHALLOC *volatile found = nullptr;
    qxGuarded([&] {
        PHALLOC *const noted = notedAround(address);
        if (noted == nullptr) {
            found = scan(address);
        } else if (accepted(noted, reinterpret_cast<uintptr_t>(noted))) { // else it is the cached block, or damaged
            found = noted;
        }
    });
    return found;
}

} // namespace brenvole
