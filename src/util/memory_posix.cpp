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
// It stands alone in its unit so that a program can put another one in its place.
#include "qxutil.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdlib>

#include <dlfcn.h>
#include <malloc.h>
#include <sched.h>

namespace {

// The address sanitizer has to see each release.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kShelved = false;
#else
constexpr bool kShelved = true;
#endif

constexpr std::size_t kLeast = 1024; // bytes; smaller ones the C library keeps for each thread, without a lock
constexpr std::size_t kPlaces = 8;   // up to 256 KiB; a line of the cache
constexpr unsigned kShelves = 64;    // processors with a higher number share

struct alignas(64) Shelf {
    std::array<std::atomic<void *>, kPlaces> blocks;
};
std::array<Shelf, kShelves> shelves; // zeros: nothing lies there

// Whether the program's allocator is one that tells the sizes of its blocks: some take the place of malloc and free,
// and leave that function to the C library, which knows nothing of their blocks.
bool tellsSizes() {
    static const bool tells = [] {
        Dl_info allocates{};
        Dl_info measures{};
        return dladdr(reinterpret_cast<void *>(&std::malloc), &allocates) != 0 &&
               dladdr(reinterpret_cast<void *>(&malloc_usable_size), &measures) != 0 &&
               allocates.dli_fbase == measures.dli_fbase;
    }();
    return tells;
}

// The place for blocks of that many bytes, or null.
std::atomic<void *> *placeFor(std::size_t bytes) {
    const std::size_t place = static_cast<std::size_t>(std::bit_width(bytes / kLeast)) - 1;
    if (place >= kPlaces) { // of smaller blocks the number wraps
        return nullptr;
    }
    return &shelves[static_cast<unsigned>(sched_getcpu()) % kShelves].blocks[place];
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

__attribute__((destructor)) void clearShelves() {
    for (Shelf &shelf : shelves) {
        for (std::atomic<void *> &place : shelf.blocks) {
            std::free(place.exchange(nullptr));
        }
    }
}

} // namespace

void *QXAlloc(uint32_t size) {
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
    if (!kShelved || !tellsSizes()) {
        std::free(block);
        return;
    }
    std::atomic<void *> *const place = placeFor(malloc_usable_size(block));
    if (place == nullptr) {
        std::free(block);
        return;
    }
    void *const before = place->exchange(block, std::memory_order_acq_rel);
    if (before == block) { // released twice: the C library shall say so
        place->store(nullptr, std::memory_order_relaxed);
        std::free(block);
    }
    std::free(before);
}
