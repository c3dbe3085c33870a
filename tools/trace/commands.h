/** @file
 *  The program's commands, a unit each. */
#ifndef TRACEVIEW_COMMANDS_H
#define TRACEVIEW_COMMANDS_H

#include "live.h"
#include "reader.h"

#include <cstdint>
#include <string>

namespace traceview {

struct Options {
    std::string file;
    std::string output;   ///< of `report`
    std::string site;     ///< `leaks`: only call sites whose text holds this
    uint64_t allocId = 0; ///< of `life`
    bool json = false;
};

/** @name What the program ends with
 *  @{ */
inline constexpr int kClean = 0;      ///< nothing is outstanding and nothing went wrong; or: done
inline constexpr int kFound = 1;      ///< something is, or the trace doesn't tell all
inline constexpr int kUnreadable = 2; ///< the file can't be read, or isn't a trace; or the command line is wrong
/** @} */

int runSummary(const Options &options);
int runLeaks(const Options &options);
int runProblems(const Options &options);
int runLife(const Options &options);
int runReport(const Options &options);

/** @name Shared by the commands
 *  @{ */
/** Opens the file, or says why not. */
bool openTrace(Reader &reader, const Options &options);

/** Opens it and follows it to its end; what is alive then is outstanding. */
bool readTrace(Reader &reader, Live &live, const Options &options);

/** All that there is to say about a file that has been read, besides its rows. */
std::vector<std::string> remarksOf(const Reader &reader, const Live &live);

/** Says that on standard error. */
void tellRemarks(const Reader &reader, const Live &live);

/** kFound or kClean, or kUnreadable if reading has failed on the way. */
int verdict(const Reader &reader, bool found);
/** @} */

} // namespace traceview

#endif
