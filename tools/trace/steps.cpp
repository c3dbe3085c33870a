#include "steps.h"

#include <algorithm>

namespace traceview {

namespace {

void joinSpan(Span &span, const Span &next) {
    span = {std::min(span.low, next.low), std::max(span.high, next.high), next.last};
}

void noteValue(Span &span, uint64_t value) { joinSpan(span, {value, value, value}); }

void noteLive(Steps<LiveStep> &course, const Live &live, const Row &row) {
    stepsReach(course, row.number);
    const std::size_t place = stepOf(course, row.number);
    while (course.steps.size() <= place) { // damaged rows may have left more than one out
        LiveStep step;
        if (!course.steps.empty()) {
            step = course.steps.back();
        }
        for (auto *const spans : {&step.bytes, &step.count}) {
            for (Span &span : *spans) {
                span.low = span.high = span.last;
            }
        }
        course.steps.push_back(step);
    }
    LiveStep &step = course.steps.back();
    step.time = row.time;
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        noteValue(step.bytes[kind], live.figures[kind].bytes);
        noteValue(step.count[kind], live.figures[kind].count);
    }
}

std::size_t actionOf(Course &course, std::string_view action) {
    const auto known = std::find(course.actions.begin(), course.actions.end(), action);
    if (known != course.actions.end()) {
        return static_cast<std::size_t>(known - course.actions.begin());
    }
    if (course.actions.size() == Course::kActions) {
        course.actions.emplace_back("others");
    } else if (course.actions.size() < Course::kActions) {
        course.actions.emplace_back(action);
    }
    return course.actions.size() - 1;
}

void noteProblem(Course &course, Live &live, const Row &row) {
    stepsReach(course.problems, row.number);
    const std::size_t place = stepOf(course.problems, row.number);
    if (course.problems.steps.size() <= place) {
        course.problems.steps.resize(place + 1);
    }
    ProblemPoint &point = course.problems.steps[place].points[actionOf(course, row.action)];
    if (point.count++ == 0) {
        point.row = row.number;
        point.time = row.time;
        point.allocId = row.allocId;
        point.site = siteOf(live.sites, row.msgarea, row.line);
        point.detail = row.detail.substr(0, Course::kDetail);
    }
}

} // namespace

void join(LiveStep &step, const LiveStep &next) {
    step.time = next.time;
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        joinSpan(step.bytes[kind], next.bytes[kind]);
        joinSpan(step.count[kind], next.count[kind]);
    }
}

void join(ProblemStep &step, ProblemStep &next) {
    for (auto &[action, point] : next.points) {
        const auto [place, isNew] = step.points.try_emplace(action, std::move(point));
        if (!isNew) {
            place->second.count += point.count;
        }
    }
}

void courseNote(Course &course, Live &live, const Row &row) {
    noteLive(course.live, live, row);
    if (row.record == Record::problem) {
        noteProblem(course, live, row);
    }
}

} // namespace traceview
