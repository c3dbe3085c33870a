// A frame's body belongs to us, and holds the way back to its ledger: who drops a frame has nothing but the frame.
#include "frame_ledger.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

// DFRAME_ALLOC takes 40 percent more than asked, and that has to fit its 32 bits.
constexpr uint64_t kLargestRequest = uint64_t{UINT32_MAX} / 7 * 5;

// What lies at the start of a frame's body.
struct Body {
    FrameLedger *ledger;
};

FrameLedger &ledgerOf(const DFRAME *frame) {
    Body body;
    std::memcpy(&body, frame->abBodyHead, sizeof body); // it isn't aligned there
    return *body.ledger;
}

void noteFailure(FrameLedger &ledger) {
    const std::lock_guard hold(ledger.lock);
    ++ledger.figures.failures;
}

// Opens the account of a new frame. False if there is no memory for it: no exception may pass through a decoder.
bool enter(FrameLedger &ledger, const DFRAME *frame) {
    const PoolFigures pool = framePoolFigures();
    const std::lock_guard hold(ledger.lock);
    try {
        ledger.references.emplace(frame, 1);
    } catch (const std::bad_alloc &) {
        return false;
    }
    LedgerFigures &figures = ledger.figures;
    ++figures.allocated;
    figures.bytesUsed += frame->dwBytesUsed;
    figures.peak = std::max(figures.peak, ledger.references.size());
    figures.bytesAlive += frame->dwBufferLength;
    if (figures.bytesAlive > figures.bytesPeak) {
        figures.bytesPeak = figures.bytesAlive;
        figures.poolAtPeak = pool;
    }
    return true;
}

} // namespace

PDFRAME ledgerAlloc(FrameLedger &ledger, uint64_t size) {
    PDFRAME frame = nullptr;
    if (size <= kLargestRequest) {
        DFrameMem(DFRAME_ALLOC | ledger.side, static_cast<int64_t>(size), DFRAME_SIZE, &frame); // null if it fails
    }
    if (frame != nullptr) {
        frame->dwBytesUsed = static_cast<uint32_t>(size);
        const Body body{&ledger};
        std::memcpy(frame->abBodyHead, &body, sizeof body);
        if (!enter(ledger, frame)) {
            DFrameMem(DFRAME_FREE, 0, 0, &frame); // null again
        }
    }
    if (frame == nullptr) {
        const std::lock_guard hold(ledger.lock);
        ++ledger.figures.refused;
    }
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
            ledger.figures.bytesAlive -= frame->dwBufferLength;
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
