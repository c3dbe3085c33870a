#include "block_memory.h"

#include "util/host.h"
#include "util/qxutil.h"
#include "util/says_on.h"
#include "util/tools.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace brenvole {

namespace {

constexpr uint8_t kGuardByte = 0xFD;
constexpr uint8_t kReleasedByte = 0xDD;

// At the end of a guard that has room for it, away from where overwrites begin.
struct MadeAt {
    char area[96]; // cut to its room
    uint32_t line;
    uint32_t check; // of the two above; a site that has been overwritten isn't reported
};
constexpr uint64_t kRoomForSite = 4 * sizeof(MadeAt);

std::span<uint8_t> bytesAt(uint64_t address, uint64_t count) {
    return {reinterpret_cast<uint8_t *>(address), static_cast<std::size_t>(count)};
}

uint32_t checkOf(const MadeAt &site) {
    uint32_t sum = site.line + 1;
    for (const char letter : site.area) {
        sum = sum * 31 + static_cast<unsigned char>(letter);
    }
    return sum;
}

bool hasSite(const BlockMemory &block) { return block.guard >= kRoomForSite; }
uint64_t siteOf(const BlockMemory &block) { return block.start + block.size + block.guard - sizeof(MadeAt); }

void writeGuard(const BlockMemory &block) {
    std::ranges::fill(bytesAt(block.start + block.size, block.guard), kGuardByte);
    if (hasSite(block)) {
        MadeAt site{};
        const char *const area = block.msgarea != nullptr ? block.msgarea : "";
        std::memcpy(site.area, area, std::min(std::strlen(area), sizeof site.area - 1));
        site.line = block.line;
        site.check = checkOf(site);
        std::memcpy(reinterpret_cast<void *>(siteOf(block)), &site, sizeof site);
    }
}

MadeAt madeAt(const BlockMemory &block) {
    MadeAt site{};
    if (hasSite(block)) {
        std::memcpy(&site, reinterpret_cast<const void *>(siteOf(block)), sizeof site);
        if (site.check != checkOf(site)) {
            site = {};
        }
    }
    return site;
}

// The first and the last byte of the range that differ from `expected`; equal to its size if none does.
struct Damage {
    uint64_t first;
    uint64_t last;
};
Damage damageIn(std::span<const uint8_t> bytes, uint8_t expected) {
    const auto differs = [expected](uint8_t byte) { return byte != expected; };
    const auto first = std::ranges::find_if(bytes, differs);
    const auto last = std::find_if(bytes.rbegin(), bytes.rend(), differs);
    return {static_cast<uint64_t>(first - bytes.begin()), static_cast<uint64_t>(bytes.rend() - last) - 1};
}

void verifyGuard(const BlockMemory &block) {
    const uint64_t pattern = block.guard - (hasSite(block) ? sizeof(MadeAt) : 0);
    const Damage damage = damageIn(bytesAt(block.start + block.size, pattern), kGuardByte);
    if (damage.first == pattern) {
        return;
    }
    const MadeAt made = madeAt(block);
    ErrFmtOut(
        QX_ERROR, 0, 0,
        "ERROR(dfmem): written beyond the end: block 0x%p of %I64u bytes, bytes %I64u to %I64u after it, frame 0x%p, "
        "allocated at %s:%lu, released at %s:%lu\n",
        reinterpret_cast<void *>(block.start), block.size, damage.first, damage.last,
        reinterpret_cast<void *>(block.owner), made.area, made.line, block.msgarea != nullptr ? block.msgarea : "",
        block.line);
}

void verifyReleased(const BlockMemory &block) {
    const uint64_t bytes = block.size + block.guard;
    const Damage damage = damageIn(bytesAt(block.start, bytes), kReleasedByte);
    if (damage.first != bytes) {
        ErrFmtOut(
            QX_ERROR, 0, 0,
            "ERROR(dfmem): written after its release: block 0x%p of %I64u bytes, bytes %I64u to %I64u, frame 0x%p, "
            "found at %s:%lu\n",
            reinterpret_cast<void *>(block.start), block.size, damage.first, damage.last,
            reinterpret_cast<void *>(block.owner), block.msgarea != nullptr ? block.msgarea : "", block.line);
    }
}

} // namespace

int blockMemoryDecide() { // all threads come to one answer
    const int ways =
        (qxWatched() ? kBlockWatched : 0) | (qxSaysOn(qxHostEnvironment("QXBRENVOLE_GUARD")) ? kBlockGuards : 0);
    blockMemoryState.store(ways, std::memory_order_relaxed);
    return ways;
}

void blockMemoryForbid(const BlockMemory &block) { qxForbidAccess(block.start, block.size + block.guard); }

void blockMemoryHandOut(const BlockMemory &block) {
    qxAllowAccess(block.start, block.size + block.guard);
    if (blockGuardsOn()) {
        writeGuard(block);
    }
    qxForbidAccess(block.start + block.size, block.guard);
}

void blockMemoryRelease(const BlockMemory &block) {
    if (blockGuardsOn()) {
        qxAllowAccess(block.start + block.size, block.guard);
        if (!qxUnderValgrind()) { // which would take the pattern for undefined, and has seen any write itself
            verifyGuard(block);
        }
        std::ranges::fill(bytesAt(block.start, block.size + block.guard), kReleasedByte);
    }
    qxForbidAccess(block.start, block.size + block.guard);
}

void blockMemoryReuse(const BlockMemory &block) {
    if (blockGuardsOn() && !qxUnderValgrind()) {
        qxAllowAccess(block.start, block.size + block.guard);
        verifyReleased(block);
    }
}

void blockMemoryGiveBack(const BlockMemory &block) { qxAllowAccess(block.start, block.size + block.guard); }

} // namespace brenvole
