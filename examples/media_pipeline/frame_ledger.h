/** @file
 *  Frames as this program takes and drops them: the library's commands, and beside them an account of every
 *  reference, by which the program can say at its end that nothing is alive. */
#ifndef MEDIA_PIPELINE_FRAME_LEDGER_H
#define MEDIA_PIPELINE_FRAME_LEDGER_H

#include "frame_pool.h"

#include <brenvole/dframe.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

/** The figures of a ledger. */
struct LedgerFigures {
    uint64_t allocated = 0; ///< frames
    uint64_t refused = 0;   ///< allocations that failed
    uint64_t failures = 0;  ///< references that the library would not take or drop
    uint64_t bytesUsed = 0; ///< sum of dwBytesUsed over all frames allocated
    std::size_t peak = 0;   ///< most frames alive at once
    std::size_t alive = 0;
    uint64_t bytesAlive = 0; ///< sum of dwBufferLength
    uint64_t bytesPeak = 0;  ///< most of these at once
    PoolFigures poolAtPeak;  ///< what of it lay in the pool, and how that then was
};

struct FrameAccount {
    uint32_t references = 1;
    uint64_t bytes = 0; ///< dwBufferLength; 0 if it shares another frame's buffer
};

/** The account. It outlives its frames. `lock` guards all of it and is never held over a command, so that the
 *  library gets its calls from all threads as they come. */
struct FrameLedger {
    uint32_t side = 0; ///< DFRAME_FLAG_SYSHEAP: all frames to the local heap
    std::mutex lock;
    std::unordered_map<const DFRAME *, FrameAccount> accounts; ///< of each live frame
    LedgerFigures figures;
};

/** Who gives a command: the file and line that the trace tells. Nobody has to pass one. */
struct CallSite {
    const char *file;
    uint32_t line;
    static CallSite current(const char *file = __builtin_FILE(), uint32_t line = __builtin_LINE()) {
        return {file, line};
    }
};

/** Allocates a frame with `size` bytes in use. The content is undefined.
 *  @return the frame, with one reference, which is the caller's; null if there is no memory */
PDFRAME ledgerAlloc(FrameLedger &ledger, uint64_t size, const CallSite &site = CallSite::current());
/** Adds a reference, on behalf of somebody else than the holder who calls.
 *  @return false if the library refuses */
bool ledgerShare(PDFRAME frame, const CallSite &site = CallSite::current());
/** A frame with the header and the bytes of another one: its own (DFRAME_COPY), or the same (DFRAME_DUP_FREE).
 *  @return the frame, with one reference; null if there is no memory */
PDFRAME ledgerCopy(PDFRAME source, const CallSite &site = CallSite::current());
PDFRAME ledgerDuplicate(PDFRAME source, const CallSite &site = CallSite::current());
/** Exchanges the contents of two frames (DFRAME_SWAP), or gives one another size (DFRAME_RESIZE).
 *  @return false if the library refuses */
bool ledgerSwap(PDFRAME first, PDFRAME second, const CallSite &site = CallSite::current());
bool ledgerResize(PDFRAME frame, uint32_t size, const CallSite &site = CallSite::current());
/** The ledger that a frame belongs to. */
FrameLedger &ledgerOf(const DFRAME *frame);
/** Drops a reference. */
void ledgerDrop(PDFRAME frame, const CallSite &site = CallSite::current());
/** True if a frame stands at this address, which may be any value. */
bool ledgerKnows(FrameLedger &ledger, const void *address);
LedgerFigures ledgerFigures(FrameLedger &ledger);

struct FrameDeleter {
    void operator()(PDFRAME frame) const { ledgerDrop(frame); }
};
/** One reference to a frame. */
using OwnFrame = std::unique_ptr<DFRAME, FrameDeleter>;

#endif
