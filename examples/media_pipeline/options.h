/** @file
 *  The command line. */
#ifndef MEDIA_PIPELINE_OPTIONS_H
#define MEDIA_PIPELINE_OPTIONS_H

#include <cstdint>
#include <string>

struct Options {
    std::string file;               ///< the shipped clip if none is named
    int threads = 2;                ///< of each decoder
    uint64_t poolBytes = 524255000; ///< what the library makes when nobody says otherwise; 0: no pool
    std::string trace;              ///< file of the library's trace; empty: none
    int leak = 0;                   ///< frames to be lost on purpose
    bool verify = false;
    bool quiet = false;
    bool help = false;
};

/** @param error  out: what is wrong with the command line
 *  @return false if something is */
bool parseOptions(Options &options, int count, char **arguments, std::string &error);

/** The text of --help. */
extern const char *const kHelp;

#endif
