// Cases of the trace, which ends for good with its process: each has a process of its own, that starts at the head of
// its test.
#ifndef BRENVOLE_TESTS_TRACE_FIXTURE_H
#define BRENVOLE_TESTS_TRACE_FIXTURE_H

#include "harness.h"
#include "trace/trace.h"

#include <brenvole/dframe.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

inline std::string contentOf(const std::string &file) {
    std::ostringstream content;
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
}

struct TraceFile : testing::Test {
    TemporaryDirectory directory{std::getenv("BRENVOLE_TEST_PLACE")}; // the processes that a test starts share it
    Environment tell{"BRENVOLE_TEST_PLACE", directory.path.c_str()};
    std::string file = directory.path + "trace.csv";
    Environment first{"QXBRENVOLE_TRACE", "1"};
    Environment second{"BRENVOLE_DFRAME_TRACE", nullptr};
    Environment place{"QXBRENVOLE_TRACE_FILE", file.c_str()};
    Environment store{"QXUTIL_CONFIG", "/nonexistent"};
    Environment config{"QXUTIL_CONFIG_DIR", directory.path.c_str()};

    // Runs it in a process that then ends as programs do.
    static void inProcess(const std::function<void()> &body) {
        EXPECT_EXIT(
            {
                static LogCapture log;
                clockMs = (uint64_t{1} << 32) + 8217344; // of which the low half is told
                body();
                std::exit(0);
            },
            testing::ExitedWithCode(0), "");
    }
};

#endif
