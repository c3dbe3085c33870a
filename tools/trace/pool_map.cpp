#include "pool_map.h"

#include <algorithm>
#include <limits>

namespace traceview {

namespace {

bool isWorthMore(const MapBlock &a, const MapBlock &b) { return a.worth > b.worth; }

void addUse(std::vector<double> &use, std::size_t cell, uint64_t bytes, uint64_t length) {
    if (use.size() <= cell) {
        use.resize(cell + 1);
    }
    use[cell] += static_cast<double>(bytes) * static_cast<double>(length);
}

// Adds to a column what the cell has held since it was noted last, up to that row and time.
void noteCell(MapColumn &column, std::size_t cell, MapCell &state, uint64_t row, uint64_t time) {
    if (state.inUse != 0) {
        addUse(column.byRow, cell, state.inUse, row - state.row);
        addUse(column.byTime, cell, state.inUse, time - state.time);
    }
    state.row = row;
    state.time = time;
}

void noteCells(MapRegion &region, uint64_t row, uint64_t time) {
    for (std::size_t cell = 0; cell < region.cells.size(); ++cell) {
        noteCell(region.columns.steps.back(), cell, region.cells[cell], row, time);
    }
}

// Opens the columns up to that of the row; one that is left behind is completed.
void reachColumn(MapRegion &region, uint64_t row, uint64_t time) {
    stepsReach(region.columns, row);
    std::vector<MapColumn> &columns = region.columns.steps;
    const std::size_t place = stepOf(region.columns, row);
    while (columns.size() <= place) {
        const uint64_t before = columns.empty() ? 0 : columns.back().time;
        if (!columns.empty()) {
            noteCells(region, columns.size() * region.columns.rows, before);
        }
        columns.push_back({before, {}, {}});
    }
    columns.back().time = time;
}

uint64_t lastByte(const MapBlock &block) { return block.base + (block.bytes - 1); }

std::size_t cellsFor(const MapRegion &region, uint64_t low, uint64_t last) {
    return static_cast<std::size_t>(
        std::min<uint64_t>((last >> region.shift) - (low >> region.shift), MapRegion::kCells) + 1);
}

// Moves each cell's figure to where its first byte belongs now, adding up those that meet.
template <class Value, class Add>
std::vector<Value> rebinned(const std::vector<Value> &old, uint64_t oldFirst, unsigned wider, uint64_t newFirst,
                            Add add) {
    std::vector<Value> values;
    for (std::size_t at = 0; at < old.size(); ++at) {
        const auto cell = static_cast<std::size_t>(((oldFirst + at) >> wider) - newFirst);
        if (values.size() <= cell) {
            values.resize(cell + 1);
        }
        add(values[cell], old[at]);
    }
    return values;
}

// Moves the figures of a region's cells, and of its columns, to where its cells lie now.
void moveCells(MapRegion &region, uint64_t firstBefore, unsigned wider) {
    const auto move = [&](auto &figures, auto add) {
        figures = rebinned(figures, firstBefore, wider, region.firstCell, add);
    };
    move(region.cells, [](MapCell &to, const MapCell &from) { to = {to.inUse + from.inUse, from.row, from.time}; });
    for (MapColumn &column : region.columns.steps) {
        for (auto *const use : {&column.byRow, &column.byTime}) {
            move(*use, [](double &to, double from) { to += from; });
        }
    }
}

// Makes room for a block. Cells get wider when there would be too many.
void reachCells(MapRegion &region, const MapBlock &block, const Row &row) {
    const bool first = region.cells.empty();
    const uint64_t low = first ? block.base : std::min(region.low, block.base);
    const uint64_t last = first ? lastByte(block) : std::max(region.high - 1, lastByte(block));
    const unsigned shiftBefore = region.shift;
    while (cellsFor(region, low, last) > MapRegion::kCells) {
        ++region.shift;
    }
    const unsigned wider = region.shift - shiftBefore;
    const uint64_t firstBefore = first ? low >> shiftBefore : region.firstCell;
    region.low = low;
    region.high = last + 1;
    region.firstCell = low >> region.shift;
    if (wider != 0 || region.firstCell != firstBefore) {
        noteCells(region, row.number, row.time); // all up to the same moment
        moveCells(region, firstBefore, wider);
    }
    region.cells.resize(cellsFor(region, low, last));
}

// The block comes, or goes, behind that row.
void occupy(MapRegion &region, const MapBlock &block, const Row &row, bool comes) {
    MapColumn &column = region.columns.steps.back();
    const uint64_t last = lastByte(block);
    for (uint64_t cell = block.base >> region.shift; cell <= last >> region.shift; ++cell) {
        const auto place = static_cast<std::size_t>(cell - region.firstCell);
        noteCell(column, place, region.cells[place], row.number, row.time);
        const uint64_t begin = std::max(block.base, cell << region.shift);
        const uint64_t end = std::min(last, (cell << region.shift) + ((uint64_t{1} << region.shift) - 1));
        const uint64_t bytes = end - begin + 1;
        region.cells[place].inUse += comes ? bytes : 0 - bytes;
    }
}

void keepBlock(MapRegion &region, const MapBlock &block) {
    if (region.blocks.size() == MapRegion::kBlocks) {
        if (!isWorthMore(block, region.blocks.front())) {
            return;
        }
        std::pop_heap(region.blocks.begin(), region.blocks.end(), isWorthMore);
        region.blocks.pop_back();
    }
    region.blocks.push_back(block);
    std::push_heap(region.blocks.begin(), region.blocks.end(), isWorthMore);
}

bool near(const PoolMap &map, const MapRegion &region, const MapBlock &block) {
    const uint64_t last = lastByte(block);
    const uint64_t below = last < region.low ? region.low - last : 0;
    const uint64_t above = block.base >= region.high ? block.base - region.high : 0;
    return std::max(below, above) < map.apart;
}

// Place of the region for a block, which may be a new one; kRegions if there are too many.
std::size_t regionFor(PoolMap &map, const MapBlock &block) {
    const auto found = std::find_if(map.regions.begin(), map.regions.end(),
                                    [&](const MapRegion &region) { return near(map, region, block); });
    const auto place = static_cast<std::size_t>(found - map.regions.begin());
    if (found == map.regions.end() && place < PoolMap::kRegions) {
        map.regions.emplace_back();
    }
    return place;
}

// Blocks whose end lies past all addresses, as only a damaged row has them, or that hold nothing, have no place.
bool canBeShown(const Allocation &allocation) {
    constexpr uint64_t kLargest = uint64_t{1} << 48;
    return allocation.kind == Kind::phys && allocation.actual != 0 && allocation.actual <= kLargest &&
           allocation.base <= std::numeric_limits<uint64_t>::max() - kLargest;
}

void come(PoolMap &map, const Row &row, const Allocation &allocation) {
    MapBlock block;
    block.id = allocation.id;
    block.fromRow = row.number;
    block.fromTime = row.time;
    block.base = allocation.base;
    block.bytes = allocation.actual;
    block.site = allocation.allocSite;
    const std::size_t place = regionFor(map, block);
    if (place == PoolMap::kRegions) {
        ++map.leftOut;
        return;
    }
    block.region = static_cast<uint32_t>(place);
    MapRegion &region = map.regions[place];
    reachColumn(region, row.number, row.time);
    reachCells(region, block, row);
    occupy(region, block, row, true);
    ++region.stays;
    map.present.emplace(block.id, block);
}

void go(PoolMap &map, const Row &row, const Allocation &allocation) {
    const auto place = map.present.find(allocation.id);
    if (place == map.present.end()) {
        return;
    }
    MapBlock block = place->second;
    map.present.erase(place);
    block.toRow = row.number;
    block.toTime = row.time;
    block.worth = block.toRow - block.fromRow;
    MapRegion &region = map.regions[block.region];
    occupy(region, block, row, false);
    keepBlock(region, block);
}

} // namespace

void join(MapColumn &column, const MapColumn &next) {
    column.time = next.time;
    const auto add = [](std::vector<double> &use, const std::vector<double> &more) {
        use.resize(std::max(use.size(), more.size()));
        for (std::size_t cell = 0; cell < more.size(); ++cell) {
            use[cell] += more[cell];
        }
    };
    add(column.byRow, next.byRow);
    add(column.byTime, next.byTime);
}

void poolMapNote(PoolMap &map, const Row &row, const Change &change) {
    map.lastRow = row.number;
    map.lastTime = row.time;
    for (MapRegion &region : map.regions) {
        reachColumn(region, row.number, row.time);
    }
    if (row.result == "call" && row.action == "DFRAME_RESET" && row.requested < PoolMap::kFarApart) {
        map.apart = std::max(map.apart, 2 * row.requested);
    }
    if (change.gone) {
        go(map, row, *change.gone);
    }
    for (const Allocation &allocation : change.settled) {
        go(map, row, allocation);
    }
    if (change.made != nullptr && canBeShown(*change.made)) {
        come(map, row, *change.made);
    }
}

void poolMapFinish(PoolMap &map) {
    for (MapRegion &region : map.regions) {
        noteCells(region, map.lastRow, map.lastTime);
    }
    for (const auto &[id, present] : map.present) {
        MapBlock block = present;
        block.toTime = map.lastTime;
        block.worth = std::numeric_limits<uint64_t>::max() - block.fromRow;
        keepBlock(map.regions[block.region], block);
    }
}

} // namespace traceview
