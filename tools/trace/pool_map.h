/** @file
 *  Where the blocks of the phys heaps have lain, and when: a raster of how full each stretch of addresses was, and
 *  single blocks above it, as many as are worth it. Memory is bounded, whatever the trace holds.
 *
 *  The trace doesn't tell regions, so addresses that lie close enough together are taken for one. */
#ifndef TRACEVIEW_POOL_MAP_H
#define TRACEVIEW_POOL_MAP_H

#include "live.h"
#include "steps.h"

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace traceview {

/** The rows of a step, and the time from the last row of the step before to its own last one. */
struct MapColumn {
    uint64_t time = 0;          ///< of its last row
    std::vector<double> byRow;  ///< bytes in use times rows, for each cell; cells behind the last are 0
    std::vector<double> byTime; ///< the same times milliseconds
};
void join(MapColumn &column, const MapColumn &next);

/** A block's stay at its place. */
struct MapBlock {
    uint64_t id = 0;
    uint64_t fromRow = 0;
    uint64_t toRow = 0; ///< 0: outstanding
    uint64_t fromTime = 0;
    uint64_t toTime = 0;
    uint64_t base = 0;
    uint64_t bytes = 0;
    uint64_t worth = 0; ///< to be shown: rows of the stay; what is outstanding comes first, the oldest in front
    uint32_t site = 0;
    uint32_t region = 0; ///< place in PoolMap::regions
};

/** What one cell holds at the moment. */
struct MapCell {
    uint64_t inUse = 0; ///< bytes
    uint64_t row = 0;   ///< up to which the current column has it
    uint64_t time = 0;  ///< the same
};

/** M1 low <= every address seen < high.
 *  M2 cells cover low to high: cell i begins at (firstCell + i) << shift, and there are at most kCells of them.
 *  M3 blocks is a heap whose front is worth least, of at most kBlocks. */
struct MapRegion {
    static constexpr std::size_t kCells = 256;
    static constexpr std::size_t kColumns = 512;
    static constexpr std::size_t kBlocks = 10000;
    static constexpr unsigned kFirstShift = 12; ///< a page; smaller granules are rare, and their blocks still seen
    uint64_t low = 0;
    uint64_t high = 0;
    unsigned shift = kFirstShift;
    uint64_t firstCell = 0;
    std::vector<MapCell> cells;
    Steps<MapColumn> columns{kColumns, 1, {}};
    std::vector<MapBlock> blocks;
    uint64_t stays = 0; ///< that there were in all
};

struct PoolMap {
    static constexpr std::size_t kRegions = 16;
    // The distance within which addresses are of one region: that of a large pool's ends, and at least twice the
    // largest that was asked for, within reason.
    static constexpr uint64_t kApart = uint64_t{16} << 30;
    static constexpr uint64_t kFarApart = uint64_t{1} << 42;
    std::vector<MapRegion> regions;
    uint64_t apart = kApart;
    uint64_t leftOut = 0; ///< blocks in none of the regions, when there were too many
    uint64_t lastRow = 0;
    uint64_t lastTime = 0;
    std::unordered_map<uint64_t, MapBlock> present; ///< by alloc_id
};

/** Notes what a row has changed. */
void poolMapNote(PoolMap &map, const Row &row, const Change &change);

/** Behind the last row: brings all columns up to it, and adds the outstanding blocks to those that are shown. */
void poolMapFinish(PoolMap &map);

} // namespace traceview

#endif
