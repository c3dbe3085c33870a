/** @file
 *  The result of a run: rows, each of one work on several sides. A benchmark named `work/ours` and all those named
 *  `work/<peer>` with the same argument and number of threads make one row; nothing has to be registered twice. */
#ifndef BRENVOLE_BENCH_TABLE_H
#define BRENVOLE_BENCH_TABLE_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

/** One side of a row: of one round of the work, per repetition, the time in nanoseconds and the page faults, which
 *  only some works count. */
struct Side {
    std::string name;
    std::vector<double> ns;
    std::vector<double> faults;
};

struct Row {
    std::string work;
    int64_t n; // the benchmark's argument, 0 if it has none
    int threads;
    std::vector<Side> sides;
};

/** A side of a row; row and side are made if there are none. Valid up to the next call. */
Side &tableSide(std::vector<Row> &rows, const std::string &work, const std::string &side, int64_t n, int threads);

/** Prints a line for each peer, and one for each row without peers; then page faults, where they were counted, and
 *  what the noise of the run was. */
void tablePrint(std::ostream &out, const std::vector<Row> &rows);

/** Writes the medians as JSON: {"rows":[{"work":,"n":,"threads":,"ours_ns":,"peers":{}}]}. A side that wasn't
 *  measured is missing; `ours_ns` is null then. Rows with page faults have "faults" with the sides' names. */
void tableWriteJson(std::ostream &out, const std::vector<Row> &rows);

#endif
