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
// A released block carries a stamp in its first word. Whoever releases one exchanges that word, so that of two
// releases of one block, on any processors, the second one finds the stamp and ends the process, as the C library
// does. The stamp stays when the block goes on to the C library, which doesn't always know of a block that it is
// free: of one that has become a part of a larger free piece, for instance. What QXAlloc hands out has none.
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

// Bytes. Smaller blocks, up to 1032, the C library keeps for each thread, without a lock, and without a way to learn
// that they are free.
constexpr std::size_t kLeast = 1040;
constexpr std::size_t kPlaces = 8; // up to 256 KiB; a line of the cache
constexpr unsigned kShelves = 64;  // processors with a higher number share

struct alignas(64) Shelf {
    std::array<std::atomic<void *>, kPlaces> blocks;
};
constinit std::array<Shelf, kShelves> shelves{}; // zeros: nothing lies there
enum class Shelving { notYet, on, over };        // on from the first QXAlloc, over when the library leaves
constinit std::atomic<Shelving> state = Shelving::notYet;

// Blocks of another QXAlloc have no first word that we may take for a stamp. Another allocator in the place of malloc
// is fast without us, and need not know malloc_usable_size; one that looks for errors, such as a sanitizer's, has to
// see each release.
bool shelving() {
    void *(*const volatile used)(std::size_t) = &std::malloc;
    void *(*const volatile own)(std::size_t) = &__libc_malloc;
    return used == own && !qxUnderValgrind() && state.load(std::memory_order_relaxed) == Shelving::on;
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
            return block;
        }
        std::free(block);
    }
    return nullptr;
}

void clearShelves() {
    for (Shelf &shelf : shelves) {
        for (std::atomic<void *> &place : shelf.blocks) {
            std::free(place.exchange(nullptr, std::memory_order_acquire));
        }
    }
}

// Runs after the other destructors of a library that embeds this one: they still release blocks.
__attribute__((destructor(102))) void closeShelves() {
    state = Shelving::over;
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
    if (block != nullptr && size >= kLeast / 2) { // or what is shelved may be larger than asked
        firstWord(block).store(0, std::memory_order_relaxed);
        if (state.load(std::memory_order_relaxed) == Shelving::notYet) {
            Shelving first = Shelving::notYet;
            state.compare_exchange_strong(first, Shelving::on);
        }
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
    std::free(place->exchange(block, std::memory_order_acq_rel));
}
