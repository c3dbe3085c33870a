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
 *  only some works count; and the peak of the memory that the whole work takes. */
struct Side {
    std::string name;
    std::string benchmark; // its full name
    std::vector<double> ns;
    std::vector<double> faults;
    double peakKiB = -1; // negative: not measured
};

struct Row {
    std::string work;
    int64_t n; // the benchmark's argument, 0 if it has none
    int threads;
    std::vector<Side> sides;
};

/** A side of a row; row and side are made if there are none. Valid up to the next call. */
Side &tableSide(std::vector<Row> &rows, const std::string &work, const std::string &side, int64_t n, int threads);

/** Once all is collected: the sides of each row come to stand in the order of their medians, the fastest first, and
 *  a row with a side `ours_local` becomes two, of which the second one, `work_local`, has that as its own side. */
void tableFinish(std::vector<Row> &rows);

/** Prints a line for each peer, and one for each row without peers; then page faults and peak memory, where they
 *  were measured, and what the noise of the run was. */
void tablePrint(std::ostream &out, const std::vector<Row> &rows);

/** Writes the medians as JSON: {"rows":[{"work":,"n":,"threads":,"ours_ns":,"peers":{}}]}. A side that wasn't
 *  measured is missing; `ours_ns` is null then. Behind these stand the minima, "ours_min_ns" and "peers_min", and in
 *  some rows, with the sides' names, "peak_kib" and "faults". */
void tableWriteJson(std::ostream &out, const std::vector<Row> &rows);

#endif
