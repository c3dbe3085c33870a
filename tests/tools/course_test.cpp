// What the report draws, beside the same figures counted plainly: steps that are joined again and again, and a map
// whose cells get wider as the addresses spread.
#include "trace/pool_map.h"
#include "trace/steps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

using namespace traceview;

namespace {

struct Placed {
    uint64_t id, base, bytes, from, to;
};

// A run of `rows` rows in which blocks come and go at random places of a region; `spread` rows pass until all of it
// is in use.
struct Playback {
    std::mt19937 engine;
    Live live;
    Course course;
    PoolMap map;
    std::vector<Placed> blocks;
    std::vector<uint64_t> bytesAt{0}; // behind each row
    std::vector<uint64_t> timeAt{0};

    explicit Playback(uint32_t seed) : engine(seed) {}

    uint64_t below(uint64_t bound) { return engine() % bound; }

    void feed(Row &row) {
        row.number = row.eventId = bytesAt.size();
        row.time = timeAt.back() + (timeAt.size() == 1 || below(3) != 0 ? 0 : below(100) == 0 ? 5000 : below(5));
        timeAt.push_back(row.time);
        const Change change = liveFollow(live, row);
        courseNote(course, live, row);
        poolMapNote(map, row, change);
        bytesAt.push_back(live.figures[static_cast<std::size_t>(Kind::phys)].bytes);
    }

    void step(uint64_t span) {
        Row row;
        row.record = Record::event;
        row.kind = Kind::phys;
        std::vector<std::size_t> alive;
        for (std::size_t at = 0; at < blocks.size(); ++at) {
            if (blocks[at].to == 0) { alive.push_back(at); }
        }
        if (below(20) == 0) {
            row.record = Record::problem;
            row.action = below(2) != 0 ? "bad" : "worse";
        } else if (alive.size() > 20 || (below(2) == 0 && !alive.empty())) {
            Placed &block = blocks[alive[below(alive.size())]];
            block.to = bytesAt.size();
            row.allocId = block.id;
            row.action = "phys_free";
            row.result = "release";
        } else {
            const uint64_t bytes = (below(64) + 1) * 1000;
            blocks.push_back({blocks.size() + 1, 0x700000000000 + below(span), bytes, bytesAt.size(), 0});
            row.allocId = blocks.back().id;
            row.action = "alloc";
            row.result = "ok";
            row.data = row.base = blocks.back().base;
            row.actual = bytes;
        }
        feed(row);
    }
};

void expectSteps(const Playback &run) {
    const auto &steps = run.course.live.steps;
    ASSERT_LE(steps.size(), Course::kSteps);
    ASSERT_EQ(steps.size(), (run.bytesAt.size() - 2) / run.course.live.rows + 1);
    for (std::size_t at = 0; at < steps.size(); ++at) {
        const uint64_t first = at * run.course.live.rows; // what was there when the step began counts as well
        const uint64_t last = std::min<uint64_t>(first + run.course.live.rows, run.bytesAt.size() - 1);
        const auto begin = run.bytesAt.begin() + static_cast<std::ptrdiff_t>(first);
        const auto end = run.bytesAt.begin() + static_cast<std::ptrdiff_t>(last) + 1;
        const Span &span = steps[at].bytes[static_cast<std::size_t>(Kind::phys)];
        ASSERT_EQ(span.low, *std::min_element(begin, end)) << at;
        ASSERT_EQ(span.high, *std::max_element(begin, end)) << at;
        ASSERT_EQ(span.last, run.bytesAt[last]) << at;
        ASSERT_EQ(steps[at].time, run.timeAt[last]) << at;
    }
    uint64_t problems = 0;
    for (const ProblemStep &step : run.course.problems.steps) {
        for (const auto &[action, point] : step.points) { problems += point.count; }
    }
    EXPECT_EQ(problems, run.live.problems);
}

uint64_t overlap(uint64_t a, uint64_t aEnd, uint64_t b, uint64_t bEnd) {
    return std::min(aEnd, bEnd) > std::max(a, b) ? std::min(aEnd, bEnd) - std::max(a, b) : 0;
}

void expectMap(const Playback &run) {
    ASSERT_EQ(run.map.regions.size(), 1u);
    const MapRegion &region = run.map.regions[0];
    const uint64_t lastRow = run.bytesAt.size() - 1;
    ASSERT_LE(region.columns.steps.size(), MapRegion::kColumns);
    ASSERT_LE(region.cells.size(), MapRegion::kCells);
    for (std::size_t column = 0; column < region.columns.steps.size(); ++column) {
        const uint64_t first = column * region.columns.rows;
        const uint64_t last = std::min(first + region.columns.rows, lastRow);
        ASSERT_EQ(region.columns.steps[column].time, run.timeAt[last]);
        std::vector<double> byRow(region.cells.size());
        std::vector<double> byTime(region.cells.size());
        for (const Placed &block : run.blocks) {
            const uint64_t to = block.to != 0 ? block.to : lastRow;
            const uint64_t rows = overlap(block.from, to, first, last);
            const uint64_t time =
                overlap(run.timeAt[block.from], run.timeAt[to], run.timeAt[first], run.timeAt[last]);
            for (std::size_t cell = 0; rows != 0 && cell < byRow.size(); ++cell) {
                const uint64_t begin = (region.firstCell + cell) << region.shift;
                const uint64_t bytes =
                    overlap(block.base, block.base + block.bytes, begin, begin + (uint64_t{1} << region.shift));
                byRow[cell] += static_cast<double>(rows * bytes);
                byTime[cell] += static_cast<double>(time * bytes);
            }
        }
        for (std::size_t cell = 0; cell < byRow.size(); ++cell) {
            const auto at = [&](const std::vector<double> &use) { return cell < use.size() ? use[cell] : 0.0; };
            ASSERT_EQ(at(region.columns.steps[column].byRow), byRow[cell]) << column << " " << cell;
            ASSERT_EQ(at(region.columns.steps[column].byTime), byTime[cell]) << column << " " << cell;
        }
    }
    ASSERT_EQ(region.stays, run.blocks.size());
    ASSERT_EQ(region.blocks.size(), std::min(run.blocks.size(), MapRegion::kBlocks));
    const auto outstanding = [](const auto &block) { return (block.toRow) == 0; };
    EXPECT_EQ(std::count_if(region.blocks.begin(), region.blocks.end(), outstanding),
              static_cast<std::ptrdiff_t>(run.live.allocations.size()));
}

} // namespace

TEST(TraceCourse, StepsAndMapAreWhatAPlainCountGives) {
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        Playback run(seed);
        const uint64_t rows = 1 + run.below(seed % 4 == 0 ? 9000 : 1500);
        const unsigned widest = static_cast<unsigned>(run.below(20)) + 13;
        for (uint64_t row = 0; row < rows; ++row) { // the region grows in both directions while the run goes on
            run.step(uint64_t{1} << std::min<uint64_t>(widest, 12 + row / 40));
        }
        poolMapFinish(run.map);
        expectSteps(run);
        expectMap(run);
    }
}

TEST(TraceCourse, TheLongestStaysAndAllThatIsOutstandingAreShown) {
    Playback run(7);
    for (uint64_t row = 0; row < 45000; ++row) { run.step(1 << 24); }
    poolMapFinish(run.map);
    const MapRegion &region = run.map.regions.at(0);
    ASSERT_GT(region.stays, MapRegion::kBlocks);
    uint64_t shortestShown = UINT64_MAX;
    std::vector<bool> shown(run.blocks.size() + 1);
    for (const MapBlock &block : region.blocks) {
        shown[block.id] = true;
        shortestShown = std::min(shortestShown, block.toRow == 0 ? UINT64_MAX : block.toRow - block.fromRow);
    }
    for (const Placed &block : run.blocks) {
        EXPECT_TRUE(shown[block.id] || (block.to != 0 && block.to - block.from <= shortestShown)) << block.id;
    }
}

TEST(TraceCourse, RegionsAndHostileAddresses) {
    Playback run(1);
    Row row;
    row.record = Record::event;
    row.action = "alloc";
    row.result = "ok";
    row.kind = Kind::phys;
    for (uint64_t block = 0; block < 100; ++block) {
        row.allocId = block + 1;
        row.base = block * (uint64_t{1} << 40);
        row.actual = block % 3 == 0 ? UINT64_MAX : uint64_t{1} << (block % 60);
        run.feed(row);
    }
    row.base = UINT64_MAX - 5;
    row.allocId = 101;
    run.feed(row);
    poolMapFinish(run.map);
    EXPECT_EQ(run.map.regions.size(), PoolMap::kRegions);
    EXPECT_GT(run.map.leftOut, 0u);

    for (const uint64_t asked : {uint64_t{0}, uint64_t{15'000'000'000}, uint64_t{1} << 60}) {
        Playback pool(2); // 20 GiB from end to end
        row.result = "call";
        row.action = "DFRAME_RESET";
        row.requested = asked;
        pool.feed(row);
        row.result = "ok";
        row.action = "alloc";
        row.actual = 4096;
        for (const uint64_t base : {uint64_t{1} << 44, (uint64_t{1} << 44) + (uint64_t{20} << 30)}) {
            row.allocId = row.base = base;
            pool.feed(row);
        }
        EXPECT_EQ(pool.map.regions.size(), asked == 15'000'000'000 ? 1u : 2u) << asked;
    }
}
