// The general allocator: the C library's, with a shelf in front for blocks of a middling size. A frame's header and
// the data of a sound frame are such blocks, and programs release one and ask for the next of the same size all the
// time; the C library takes its lock for each and joins and splits its free space again and again, for some 50 ns a
// pair.
//
// Each processor has a shelf, with one place for each power of two in size. A released block is put there, and what
// lay there goes on to the C library; a request takes it, if its size is about right. A place is one atomic word, so
// that no thread ever waits, and a thread that is moved to another processor half-way does no harm. What lies on the
// shelves is given back when the library leaves.
//
// A block on a shelf carries a stamp in its first word. Whoever puts a block there exchanges that word, so that of
// two releases of one block, on any processors, the second one finds the stamp and ends the process, as the C library
// does.
//
// It stands alone in its unit so that a program can put another one in its place.
#include "allocating.h"
#include "qxutil.h"
#include "spread.h"
#include "tools.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdlib>

#include <malloc.h>
#include <sched.h>

// The other name of the C library's own malloc; null where it has none.
extern "C" void *__libc_malloc(std::size_t size) __attribute__((weak)); // NOLINT(bugprone-reserved-identifier)

namespace {

constexpr std::size_t kLeast = 1024; // bytes; smaller ones the C library keeps for each thread, without a lock
constexpr std::size_t kPlaces = 8;   // up to 256 KiB; a line of the cache
constexpr unsigned kShelves = 64;    // processors with a higher number share

struct alignas(64) Shelf {
    std::array<std::atomic<void *>, kPlaces> blocks;
};
constinit std::array<Shelf, kShelves> shelves{}; // zeros: nothing lies there
constinit std::atomic<bool> closed = false;      // the library leaves: nothing is put there any more

// Another allocator in the place of malloc is fast without us, and need not know malloc_usable_size; one that looks
// for errors, such as a sanitizer's, has to see each release.
bool shelving() {
    void *(*const volatile used)(std::size_t) = &std::malloc;
    void *(*const volatile own)(std::size_t) = &__libc_malloc;
    return used == own && !qxUnderValgrind() && !closed.load(std::memory_order_relaxed);
}

// The place for blocks of that many bytes, or null.
std::atomic<void *> *placeFor(std::size_t bytes) {
    const std::size_t place = static_cast<std::size_t>(std::bit_width(bytes / kLeast)) - 1;
    if (place >= kPlaces) { // of smaller blocks the number wraps
        return nullptr;
    }
    return &shelves[static_cast<unsigned>(sched_getcpu()) % kShelves].blocks[place];
}

std::atomic_ref<uint64_t> firstWord(void *block) { return std::atomic_ref(*static_cast<uint64_t *>(block)); }

// Different for each block, and in each process: no data has it by chance.
uint64_t stampFor(const void *block) {
    return qxSpread(reinterpret_cast<uintptr_t>(block) ^ std::rotl(reinterpret_cast<uint64_t>(&shelves), 32));
}

void giveBack(void *block) {
    if (block != nullptr) {
        firstWord(block).store(0, std::memory_order_relaxed); // whoever gets it next may not write there
        std::free(block);
    }
}

[[noreturn]] void releasedTwice(void *block) {
    ErrFmtOut(QX_ERROR, 0, 0, "ERROR(qxutil): QXFree: block 0x%p is released twice\n", block);
    std::abort();
}

// A block of the shelf that is large enough, and at most a quarter larger than asked.
void *takeFrom(std::atomic<void *> &place, std::size_t size) {
    if (place.load(std::memory_order_relaxed) == nullptr) {
        return nullptr;
    }
    void *const block = place.exchange(nullptr, std::memory_order_acquire);
    if (block != nullptr) {
        const std::size_t usable = malloc_usable_size(block);
        if (usable >= size && usable - size <= size / 4) {
            firstWord(block).store(0, std::memory_order_relaxed);
            return block;
        }
        giveBack(block);
    }
    return nullptr;
}

void clearShelves() {
    for (Shelf &shelf : shelves) {
        for (std::atomic<void *> &place : shelf.blocks) {
            giveBack(place.exchange(nullptr, std::memory_order_acquire));
        }
    }
}

// Behind the other destructors of a library that embeds this one: they still release blocks.
__attribute__((destructor(102))) void closeShelves() {
    closed = true;
    clearShelves();
}

} // namespace

void *QXAlloc(uint32_t size) {
    const QXAllocating mark;
    std::atomic<void *> *const place = placeFor(size);
    void *block = place != nullptr ? takeFrom(*place, size) : nullptr;
    if (block == nullptr) {
        block = std::malloc(size == 0 ? 1 : size);
    }
    if (block == nullptr) { // perhaps what lies on the shelves is what is missing
        clearShelves();
        block = std::malloc(size == 0 ? 1 : size);
    }
    return block;
}

void QXFree(void *block) {
    const QXAllocating mark;
    std::atomic<void *> *const place = shelving() ? placeFor(malloc_usable_size(block)) : nullptr;
    if (place == nullptr) {
        std::free(block);
        return;
    }
    const uint64_t stamp = stampFor(block);
    if (firstWord(block).exchange(stamp, std::memory_order_acq_rel) == stamp) {
        releasedTwice(block);
    }
    giveBack(place->exchange(block, std::memory_order_acq_rel));
}
