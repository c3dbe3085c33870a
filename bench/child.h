/** @file
 *  A child process that measures something and prints the result. */
#ifndef BRENVOLE_BENCH_CHILD_H
#define BRENVOLE_BENCH_CHILD_H

#include <string>
#include <vector>

struct ChildResult {
    bool whole;         // it ran, and its exit status was 0
    std::string output; // what it printed
};

/** Runs a program and waits for its end.
 *  @param settings  of the environment, as NAME=value, in front of what this process has */
ChildResult childRun(const std::string &program, std::vector<std::string> arguments,
                     std::vector<std::string> settings);

#endif
