#include "frame_pool.h"

#include <brenvole/dframe.h>

namespace {

// The word that takes a whole figure stands in the place of a frame.
uint64_t wholeFigure(uint32_t command) {
    uint64_t figure = 0;
    DFrameMem(command, 0, 0, reinterpret_cast<PDFRAME *>(&figure));
    return figure; // stays 0 without a pool
}

} // namespace

bool framePoolOpen(uint64_t bytes) { return DFrameMem(DFRAME_RESET, static_cast<int64_t>(bytes), 0, nullptr) == 0; }

PoolFigures framePoolFigures() {
    PoolFigures figures;
    figures.largestFree = wholeFigure(DFRAME_LARGEST);
    figures.used = wholeFigure(DFRAME_TOTALUSED);
    if (figures.largestFree + figures.used != 0) { // without a pool DFRAME_TOTAL tells of one that could be
        figures.total = DFrameMem(DFRAME_TOTAL, 0, 0, nullptr);
    }
    return figures;
}

void framePoolClose() { DFrameMem(DFRAME_CLOSE, 0, 0, nullptr); }
