/** @file
 *  A line on the terminal that tells how far the program is. It goes to standard error, and nowhere if that is
 *  no terminal. Used by one thread. */
#ifndef TERMINAL_PROGRESS_H
#define TERMINAL_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <string>

/** The line is written anew no more often than this. */
inline constexpr std::chrono::milliseconds kProgressInterval{100};

struct Progress {
    bool enabled = false;
    std::size_t width = 0; ///< characters that stand on the line
    std::chrono::steady_clock::time_point last{};
};

/** True if it is time for the next text. */
bool progressDue(const Progress &progress);
/** Replaces the line. */
void progressShow(Progress &progress, const std::string &text);
/** Takes the line away, before anything else is printed. */
void progressErase(Progress &progress);

#endif
