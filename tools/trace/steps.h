/** @file
 *  A course over the rows of a trace in bounded memory. The rows are cut into steps of the same length, a power of
 *  two; when there are too many steps, each two neighbours become one, twice as long. What a step holds is its
 *  user's: `join(a, b)` makes `a` both. */
#ifndef TRACEVIEW_STEPS_H
#define TRACEVIEW_STEPS_H

#include "live.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace traceview {

template <class Step> struct Steps {
    std::size_t most;  ///< even
    uint64_t rows = 1; ///< of a step
    std::vector<Step> steps;
};

/** Place of the step that holds a row; rows count from 1. */
template <class Step> std::size_t stepOf(const Steps<Step> &course, uint64_t row) {
    return static_cast<std::size_t>((row - 1) / course.rows);
}

/** Makes the steps longer until that row has a place. True if they are longer now. */
template <class Step> bool stepsReach(Steps<Step> &course, uint64_t row) {
    const uint64_t before = course.rows;
    while (stepOf(course, row) >= course.most) {
        const std::size_t count = course.steps.size();
        for (std::size_t at = 0; at < count; at += 2) {
            Step &step = course.steps[at / 2];
            if (at != 0) {
                step = std::move(course.steps[at]);
            }
            if (at + 1 < count) {
                join(step, course.steps[at + 1]);
            }
        }
        course.steps.resize((count + 1) / 2);
        course.rows *= 2;
    }
    return course.rows != before;
}

/** What a number was in a step. */
struct Span {
    uint64_t low = 0;
    uint64_t high = 0;
    uint64_t last = 0;
};

/** What was alive, by kind. */
struct LiveStep {
    uint64_t time = 0; ///< of its last row
    std::array<Span, kKinds> bytes;
    std::array<Span, kKinds> count;
};
void join(LiveStep &step, const LiveStep &next);

/** Problems of one name in one step; the texts are the first one's. */
struct ProblemPoint {
    uint64_t row = 0;
    uint64_t time = 0;
    uint64_t count = 0;
    uint64_t allocId = 0;
    uint32_t site = 0;
    std::string detail;
};

struct ProblemStep {
    std::map<std::size_t, ProblemPoint> points; ///< by the place of their name
};
void join(ProblemStep &step, ProblemStep &next);

/** How much was alive, and what went wrong, over the rows. */
struct Course {
    static constexpr std::size_t kSteps = 2048;
    static constexpr std::size_t kActions = 100; ///< a sound trace has half as many; what is beyond is one more
    Steps<LiveStep> live{kSteps, 1, {}};
    Steps<ProblemStep> problems{kSteps, 1, {}};
    static constexpr std::size_t kDetail = 256; ///< bytes of a text that a row may have any length of
    std::vector<std::string> actions;
};

/** Notes a row that `live` has followed. */
void courseNote(Course &course, Live &live, const Row &row);

} // namespace traceview

#endif
