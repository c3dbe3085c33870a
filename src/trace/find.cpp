// How an entry of the live table is found without walking them all. The list says what is alive, and the walk along
// it from the newest on says what is found; here is a shorter way to the same entry. It is made of links in the
// entries themselves and of places that exist from load, so that there is no memory to ask for, and none to be
// refused.
//
// An entry stands in up to three chains: one for its owner, and one or two for its range. A range of up to 2^n bytes
// touches at most two of the pieces into which addresses fall if they are cut at the multiples of 2^n: it stands
// under both. Who has an address asks for the one piece around it, for each n that is in use. Each chain runs from
// the newest on, so that its first match is the newest one in it; what else stands there by chance is passed over.
#include "trace.h"

#include "util/spread.h"

#include <algorithm>
#include <array>
#include <bit>

namespace brenvole {

namespace {

constexpr unsigned kPlaceBits = 17; // 1 MiB; chains of one or two links up to 100000 entries
constexpr unsigned kLevels = 64;

// Under traceLock, all of them.
std::array<TraceLink *, std::size_t{1} << kPlaceBits> places;
std::array<uint64_t, kLevels> rangesAt; // how many ranges have the level
uint64_t levelsInUse = 0;               // a bit for each that has any

TraceLink **placeOf(uint64_t key) { return &places[qxSpread(key) >> (64 - kPlaceBits)]; }
uint64_t keyOfOwner(const void *dframe) { return reinterpret_cast<uintptr_t>(dframe); }
uint64_t keyOfPiece(unsigned level, uint64_t address) { return (address >> level) * kLevels + level; }

void enter(TraceLink &link, TraceEntry *entry, uint64_t key) {
    TraceLink **at = placeOf(key);
    while (*at != nullptr && (*at)->entry->allocId > entry->allocId) {
        at = &(*at)->next;
    }
    link = {*at, at, key, entry};
    *at = &link;
    if (link.next != nullptr) {
        link.next->at = &link.next;
    }
}

void leave(TraceLink &link) {
    if (link.at == nullptr) { // it stood nowhere
        return;
    }
    *link.at = link.next;
    if (link.next != nullptr) {
        link.next->at = link.at;
    }
    link = {};
}

struct Range {
    uint64_t first;
    uint64_t last;
};

// All addresses that the entry may match, and no more than a few others: `data` may lie outside the block.
Range rangeOf(const TraceEntry *entry) {
    const auto base = reinterpret_cast<uintptr_t>(entry->base);
    const auto data = reinterpret_cast<uintptr_t>(entry->data);
    const uint64_t behind = std::min<uint64_t>(entry->actual != 0 ? entry->actual - 1 : 0, UINT64_MAX - base);
    return data == 0 ? Range{base, base + behind} : Range{std::min(base, data), std::max(base + behind, data)};
}

bool holdsAddress(const TraceEntry *entry, const void *address) {
    const auto at = reinterpret_cast<uintptr_t>(address);
    const auto base = reinterpret_cast<uintptr_t>(entry->base);
    return entry->data == address || entry->base == address ||
           (base != 0 && entry->actual != 0 && at >= base && at - base < entry->actual);
}

bool matches(const TraceEntry *entry, const TraceWanted &wanted) {
    return ((wanted.data != nullptr && holdsAddress(entry, wanted.data)) ||
            (wanted.dframe != nullptr && entry->dframe == wanted.dframe)) &&
           (wanted.kind == nullptr || std::strcmp(entry->kind, wanted.kind) == 0);
}

// The newest match under the key if it is newer than the best so far. Of others in its chain, the links alone are
// read.
TraceEntry *newer(TraceEntry *best, uint64_t key, const TraceWanted &wanted) {
    for (const TraceLink *link = *placeOf(key); link != nullptr; link = link->next) {
        if (link->key == key) {
            if (best != nullptr && link->entry->allocId <= best->allocId) {
                return best;
            }
            if (matches(link->entry, wanted)) {
                return link->entry;
            }
        }
    }
    return best;
}

} // namespace

TraceEntry *traceFind(const TraceWanted &wanted) {
    TraceEntry *best = nullptr;
    if (wanted.data != nullptr) {
        const auto address = reinterpret_cast<uintptr_t>(wanted.data);
        for (uint64_t levels = levelsInUse; levels != 0; levels &= levels - 1) {
            best = newer(best, keyOfPiece(static_cast<unsigned>(std::countr_zero(levels)), address), wanted);
        }
    }
    return wanted.dframe != nullptr ? newer(best, keyOfOwner(wanted.dframe), wanted) : best;
}

void traceSetOwner(TraceEntry *entry, const void *dframe) {
    if (entry->dframe == dframe) {
        return;
    }
    leave(entry->ownerLink);
    entry->dframe = dframe;
    if (dframe != nullptr) {
        enter(entry->ownerLink, entry, keyOfOwner(dframe));
    }
}

void traceSetRange(TraceEntry *entry, const void *data, const void *base, uint64_t actual) {
    if (entry->base != nullptr) {
        leave(entry->rangeLinks[0]);
        leave(entry->rangeLinks[1]);
        if (--rangesAt[entry->level] == 0) {
            levelsInUse &= ~(uint64_t{1} << entry->level);
        }
    }
    entry->data = data;
    entry->base = base;
    entry->actual = actual;
    if (base == nullptr) { // nor is there `data`
        return;
    }
    const auto [first, last] = rangeOf(entry);
    entry->level = std::min(static_cast<unsigned>(std::bit_width(last - first)), kLevels - 1);
    levelsInUse |= uint64_t{1} << entry->level;
    ++rangesAt[entry->level];
    enter(entry->rangeLinks[0], entry, keyOfPiece(entry->level, first));
    if (first >> entry->level != last >> entry->level) {
        enter(entry->rangeLinks[1], entry, keyOfPiece(entry->level, last));
    }
}

} // namespace brenvole
