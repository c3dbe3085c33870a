/** @file
 *  Peak memory of a side. Its work runs once more, alone in a child of this program, which writes to every page that
 *  it gets, and tells how far its resident memory has grown. */
#ifndef BRENVOLE_BENCH_PEAK_H
#define BRENVOLE_BENCH_PEAK_H

#include <cstddef>
#include <cstdint>
#include <string>

/** True in such a child. */
inline bool peakMode = false;

/** Writes to each page of a block. */
void peakTouch(void *data, std::size_t size);

/** Whether a side's memory is measured: where the sides differ, and the child is done in a moment. */
bool peakWanted(const std::string &work, const std::string &side, int64_t n, int threads);

/** In the child: from here on the peak counts. */
void peakBegin();

/** @return KiB by which resident memory has grown since peakBegin, at its peak; negative if the system doesn't tell
 */
double peakGrowth();

/** Runs one benchmark by its full name in a child.
 *  @return KiB; negative if the child failed, which has said why */
double peakMeasure(const std::string &benchmarkName);

/** The option that makes this program such a child, with the benchmark's name behind it. */
constexpr const char *kPeakOption = "--peak=";

#endif
