// A frame's body belongs to us, and holds the way back to its ledger: who drops a frame has nothing but the frame.
#include "frame_ledger.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>

namespace {

// DFRAME_ALLOC takes 40 percent more than asked, and that has to fit its 32 bits.
constexpr uint64_t kLargestRequest = uint64_t{UINT32_MAX} / 7 * 5;

// What lies at the start of a frame's body.
struct Body {
    FrameLedger *ledger;
};

void noteFailure(FrameLedger &ledger) {
    const std::lock_guard hold(ledger.lock);
    ++ledger.figures.failures;
}

// Lock held.
void addBytes(LedgerFigures &figures, uint64_t bytes, const PoolFigures &pool) {
    figures.bytesAlive += bytes;
    if (figures.bytesAlive > figures.bytesPeak) {
        figures.bytesPeak = figures.bytesAlive;
        figures.poolAtPeak = pool;
    }
}

// Opens the account of a new frame. False if there is no memory for it: no exception may pass through a decoder.
bool enter(FrameLedger &ledger, const DFRAME *frame, uint64_t bytes) {
    const PoolFigures pool = framePoolFigures();
    const std::lock_guard hold(ledger.lock);
    try {
        ledger.accounts[frame].bytes = bytes;
    } catch (const std::bad_alloc &) {
        return false;
    }
    LedgerFigures &figures = ledger.figures;
    ++figures.allocated;
    figures.bytesUsed += frame->dwBytesUsed;
    figures.peak = std::max(figures.peak, ledger.accounts.size());
    addBytes(figures, bytes, pool);
    return true;
}

// A frame that has just been made, or null, comes to the account. Without memory for that it goes again.
PDFRAME entered(FrameLedger &ledger, PDFRAME frame, uint64_t bytes) {
    if (frame != nullptr && !enter(ledger, frame, bytes)) {
        DFrameMem(DFRAME_FREE, 0, 0, &frame); // null again
    }
    if (frame == nullptr) {
        const std::lock_guard hold(ledger.lock);
        ++ledger.figures.refused;
    }
    return frame;
}

uintptr_t asSource(PDFRAME &frame) { return reinterpret_cast<uintptr_t>(&frame); }

uint64_t command(const CallSite &site, uint32_t number, PDFRAME &frame, int64_t size = 0, uintptr_t other = 0) {
    const std::string_view path = site.file;
    const char *const name = site.file + (path.find_last_of("/\\") + 1); // npos + 1 is 0
    return DFrameMemTrace(number, size, other, &frame, name, site.line);
}

} // namespace

FrameLedger &ledgerOf(const DFRAME *frame) {
    Body body;
    std::memcpy(&body, frame->abBodyHead, sizeof body); // it isn't aligned there
    return *body.ledger;
}

PDFRAME ledgerAlloc(FrameLedger &ledger, uint64_t size, const CallSite &site) {
    PDFRAME frame = nullptr;
    if (size <= kLargestRequest) {
        command(site, DFRAME_ALLOC | ledger.side, frame, static_cast<int64_t>(size), DFRAME_SIZE); // null if it fails
    }
    if (frame != nullptr) {
        frame->dwBytesUsed = static_cast<uint32_t>(size);
        const Body body{&ledger};
        std::memcpy(frame->abBodyHead, &body, sizeof body);
    }
    return entered(ledger, frame, frame != nullptr ? frame->dwBufferLength : 0);
}

PDFRAME ledgerCopy(PDFRAME source, const CallSite &site) {
    PDFRAME frame = nullptr;
    command(site, DFRAME_COPY, frame, 0, asSource(source)); // the body comes along
    return entered(ledgerOf(source), frame, frame != nullptr ? frame->dwBufferLength : 0);
}

PDFRAME ledgerDuplicate(PDFRAME source, const CallSite &site) {
    PDFRAME frame = nullptr;
    command(site, DFRAME_DUP_FREE, frame, 0, asSource(source));
    return entered(ledgerOf(source), frame, 0);
}

bool ledgerSwap(PDFRAME first, PDFRAME second, const CallSite &site) {
    FrameLedger &ledger = ledgerOf(first);
    if (command(site, DFRAME_SWAP, first, 0, asSource(second)) != 0) {
        noteFailure(ledger);
        return false;
    }
    const std::lock_guard hold(ledger.lock);
    ledger.accounts[first].bytes = first->dwBufferLength;
    ledger.accounts[second].bytes = second->dwBufferLength;
    return true;
}

bool ledgerResize(PDFRAME frame, uint32_t size, const CallSite &site) {
    FrameLedger &ledger = ledgerOf(frame);
    const uint64_t status = command(site, DFRAME_RESIZE, frame, size);
    if (status != 0) {
        if (status != DFMEM_E_OUTOFMEMORY) {
            noteFailure(ledger);
        }
        return false;
    }
    const PoolFigures pool = framePoolFigures();
    const std::lock_guard hold(ledger.lock);
    uint64_t &bytes = ledger.accounts[frame].bytes;
    ledger.figures.bytesAlive -= bytes;
    bytes = size;
    addBytes(ledger.figures, bytes, pool);
    return true;
}

bool ledgerShare(PDFRAME frame, const CallSite &site) {
    FrameLedger &ledger = ledgerOf(frame);
    if (command(site, DFRAME_ADDREF, frame) != 0) {
        noteFailure(ledger);
        return false;
    }
    const std::lock_guard hold(ledger.lock);
    ++ledger.accounts[frame].references;
    return true;
}

void ledgerDrop(PDFRAME frame, const CallSite &site) {
    FrameLedger &ledger = ledgerOf(frame);
    {
        // Before the command: after it, the address may be another frame's already.
        const std::lock_guard hold(ledger.lock);
        const auto entry = ledger.accounts.find(frame);
        if (--entry->second.references == 0) {
            ledger.figures.bytesAlive -= entry->second.bytes;
            ledger.accounts.erase(entry);
        }
    }
    if (command(site, DFRAME_FREE, frame) != 0) {
        noteFailure(ledger);
    }
}

bool ledgerKnows(FrameLedger &ledger, const void *address) {
    const std::lock_guard hold(ledger.lock);
    return ledger.accounts.contains(static_cast<const DFRAME *>(address));
}

LedgerFigures ledgerFigures(FrameLedger &ledger) {
    const std::lock_guard hold(ledger.lock);
    LedgerFigures figures = ledger.figures;
    figures.alive = ledger.accounts.size();
    return figures;
}
