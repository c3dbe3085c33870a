// A frame's body belongs to us, and holds the way back to its ledger: who drops a frame has nothing but the frame.
#include "frame_ledger.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace {

// DFRAME_ALLOC takes 40 percent more than asked, and that has to fit its 32 bits.
constexpr uint64_t kLargestRequest = std::numeric_limits<uint32_t>::max() / 7 * 5;

FrameLedger &ledgerOf(const DFRAME *frame) {
    FrameLedger *ledger = nullptr;
    std::memcpy(&ledger, frame->abBodyHead, sizeof ledger); // the body isn't aligned
    return *ledger;
}

void noteFailure(FrameLedger &ledger) {
    const std::lock_guard hold(ledger.lock);
    ++ledger.figures.failures;
}

} // namespace

PDFRAME ledgerAlloc(FrameLedger &ledger, uint64_t size) {
    PDFRAME frame = nullptr;
    if (size <= kLargestRequest) {
        DFrameMem(DFRAME_ALLOC, static_cast<int64_t>(size), DFRAME_SIZE, &frame); // null if it fails
    }
    if (frame != nullptr) {
        frame->dwBytesUsed = static_cast<uint32_t>(size);
        FrameLedger *const home = &ledger;
        std::memcpy(frame->abBodyHead, &home, sizeof home);
    }
    const std::lock_guard hold(ledger.lock);
    LedgerFigures &figures = ledger.figures;
    if (frame == nullptr) {
        ++figures.refused;
        return nullptr;
    }
    ledger.references.emplace(frame, 1);
    ++figures.allocated;
    figures.bytesUsed += size;
    figures.peak = std::max(figures.peak, ledger.references.size());
    return frame;
}

bool ledgerShare(PDFRAME frame) {
    FrameLedger &ledger = ledgerOf(frame);
    if (DFrameMem(DFRAME_ADDREF, 0, 0, &frame) != 0) {
        noteFailure(ledger);
        return false;
    }
    const std::lock_guard hold(ledger.lock);
    ++ledger.references[frame];
    return true;
}

void ledgerDrop(PDFRAME frame) {
    FrameLedger &ledger = ledgerOf(frame);
    {
        // Before the command: after it, the address may be another frame's already.
        const std::lock_guard hold(ledger.lock);
        const auto entry = ledger.references.find(frame);
        if (--entry->second == 0) {
            ledger.references.erase(entry);
        }
    }
    if (DFrameMem(DFRAME_FREE, 0, 0, &frame) != 0) {
        noteFailure(ledger);
    }
}

bool ledgerKnows(FrameLedger &ledger, const void *address) {
    const std::lock_guard hold(ledger.lock);
    return ledger.references.contains(static_cast<const DFRAME *>(address));
}

LedgerFigures ledgerFigures(FrameLedger &ledger) {
    const std::lock_guard hold(ledger.lock);
    LedgerFigures figures = ledger.figures;
    figures.alive = ledger.references.size();
    return figures;
}
