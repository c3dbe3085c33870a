#include "picture_edit.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

namespace {

// The filter: a negative.
void negate(PDFRAME result, const DFRAME *picture) {
    std::transform(picture->lpData, picture->lpData + picture->dwBytesUsed, +result->lpData, std::bit_not<uint8_t>());
}

// A copy, since the decoder and other threads read the picture; changed by the filter, which writes into a frame of
// its own; that becomes the picture's content without a byte being moved. Null if there is no memory.
OwnFrame filtered(PDFRAME picture) {
    OwnFrame work(ledgerCopy(picture));
    OwnFrame result(work != nullptr ? ledgerAlloc(ledgerOf(picture), work->dwBytesUsed) : nullptr);
    if (result == nullptr) {
        return nullptr;
    }
    negate(result.get(), work.get());
    return ledgerSwap(work.get(), result.get()) ? std::move(work) : nullptr;
}

// The frame grows by the caption. It stays in its heap; where that has no room, it is left as it was, and a frame
// with room is taken wherever there is any.
bool addCaption(OwnFrame &work, const std::string &caption) {
    const uint32_t used = work->dwBytesUsed;
    const auto size = static_cast<uint32_t>(caption.size());
    if (!ledgerResize(work.get(), used + size)) {
        OwnFrame larger(ledgerAlloc(ledgerOf(work.get()), used + size));
        if (larger == nullptr) {
            return false;
        }
        std::memcpy(larger->lpData, work->lpData, used);
        work = std::move(larger);
    }
    std::memcpy(work->lpData + used, caption.data(), size);
    work->dwBytesUsed = used + size;
    return true;
}

// What was undefined in the picture is so in the copy; only what can be seen is compared.
bool previewMatches(const DFRAME *preview, const SharedFrame &share, const std::string &caption) {
    bool matches = true;
    forEachRow(*share.media, [&](const uint8_t *start, std::size_t bytes) {
        const uint8_t *const seen = preview->lpData + (start - share.frame->lpData);
        matches = matches && std::equal(start, start + bytes, seen,
                                        [](uint8_t before, uint8_t after) { return after == uint8_t(~before); });
    });
    const uint8_t *const behind = preview->lpData + share.frame->dwBytesUsed;
    return matches && preview->dwBytesUsed == share.frame->dwBytesUsed + caption.size() &&
           std::equal(caption.begin(), caption.end(), behind);
}

} // namespace

void editPicture(EditFigures &figures, const SharedFrame &share) {
    const std::string caption = "picture " + std::to_string(++figures.edited);
    OwnFrame work = filtered(share.frame.get());
    OwnFrame preview(work != nullptr && addCaption(work, caption) ? ledgerDuplicate(work.get()) : nullptr);
    work.reset(); // the editor is done with it, the preview keeps the buffer
    if (preview == nullptr) {
        ++figures.refused;
    } else if (!previewMatches(preview.get(), share, caption)) {
        ++figures.differing;
    }
    if (preview != nullptr && figures.lost < figures.toLose) {
        static_cast<void>(preview.release()); // the fault: nobody holds it any more, and it is still there
        ++figures.lost;
    }
}
