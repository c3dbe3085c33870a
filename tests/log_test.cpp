#include "harness.h"
#include "util/qxutil.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include <unistd.h>

namespace {

std::string contentOf(const std::string &file) {
    std::stringstream content;
    content << std::ifstream(file).rdbuf();
    return content.str();
}

// The log opens once a process: each of these runs in a process of its own.

TEST(LogDeathTest, FileGetsEachMessageWithOneLineFeed) {
    const std::string file = testing::TempDir() + "brenvole_log_test";
    std::ofstream(file) << "before\n";
    const Environment log("QXUTIL_LOG", file.c_str());
    EXPECT_EXIT(
        {
            ErrOut("plain %ld", -3);
            ErrFmtOut(QX_WARNING, 0, 0, "WARNING(dfmem): %s\n", "two\nlines");
            const bool given = ErrMsgOut(7, "100%s", 0, 0, 0, 0) == 7;
            ErrOut("many\n\n\n");
            ErrOut("%s", std::string(5000, 'x').c_str());
            _exit(given && contentOf(file).size() > 5000 ? 0 : 1); // through to the system before the process ends
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EQ(contentOf(file),
              "before\nplain -3\nWARNING(dfmem): two\nlines\n100%s\nmany\n" + std::string(5000, 'x') + "\n");
    unlink(file.c_str());
}

TEST(LogDeathTest, UnwritableFileFallsBackToStandardError) {
    const Environment log("QXUTIL_LOG", "/nonexistent/file");
    EXPECT_EXIT(
        {
            ErrOut("still here");
            _exit(0);
        },
        testing::ExitedWithCode(0), "can't open the log file.*\nstill here\n");
}

TEST(LogDeathTest, MessagesOfThreadsStayWhole) {
    const std::string file = testing::TempDir() + "brenvole_log_threads";
    const Environment log("QXUTIL_LOG", file.c_str());
    EXPECT_EXIT(
        {
            onThreads(4, [](int t) {
                for (unsigned i = 0; i < 200; ++i) {
                    ErrOut("%s", std::string(100 + i % 7, static_cast<char>('a' + t)).c_str());
                }
            });
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
    std::istringstream lines(contentOf(file));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        ASSERT_EQ(line.find_first_not_of(line[0]), std::string::npos) << line;
    }
    EXPECT_EQ(count, 800);
    unlink(file.c_str());
}

TEST(Log, SinkGetsTextsAndSeveritiesAsTheyAre) {
    LogCapture log;
    ErrOut("a\n");
    ErrFmtOut(QX_ERROR, 0, 0, "ERROR(dfmem): %s\n", "b");
    ErrMsgOut(0xE8108020u, "%c", 0, 0, 0, 0);
    ErrMsgOut(1, nullptr, 0, 0, 0, 0);
    const decltype(log.messages) expected = {{0, "a\n"}, {QX_ERROR, "ERROR(dfmem): b\n"}, {QX_ERROR, "%c"}};
    EXPECT_EQ(log.messages, expected);
}

TEST(Log, SinkMayLogAndSetAnother) {
    static int depth;
    static LogCapture *second;
    depth = 0;
    qxSetLogSink(
        [](uint32_t, const char *, void *) {
            if (++depth < 3) {
                ErrOut("inner %d", depth);
            } else {
                second = new LogCapture; // takes the sink over from inside it
            }
        },
        nullptr);
    ErrOut("outer");
    ErrOut("to the second");
    EXPECT_EQ(depth, 3);
    EXPECT_EQ(second->take(), Texts{"to the second"});
    delete second;
}

} // namespace
