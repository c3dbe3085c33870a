#include "harness.h"

#include <gtest/gtest.h>

namespace {

// The log opens once a process: each of these runs in a process of its own.

TEST(LogDeathTest, FileGetsEachMessageWholeWithOneLineFeed) {
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
            onThreads(4, [](int t) {
                for (int i = 0; i < 200; ++i) { ErrOut("%s", std::string(100, static_cast<char>('a' + t)).c_str()); }
            });
            std::_Exit(given ? 0 : 1); // all is through to the system before the process ends
        },
        testing::ExitedWithCode(0), "");
    const std::string first =
        "before\nplain -3\nWARNING(dfmem): two\nlines\n100%s\nmany\n" + std::string(5000, 'x') + "\n";
    std::ifstream content(file);
    std::string text(first.size(), 0);
    content.read(text.data(), static_cast<std::streamsize>(text.size()));
    EXPECT_EQ(text, first);
    int count = 0;
    for (; std::getline(content, text); ++count) { ASSERT_EQ(text, std::string(100, text[0])); }
    EXPECT_EQ(count, 800);
    unlink(file.c_str());
}

TEST(LogDeathTest, UnwritableFileFallsBackToStandardError) {
    const Environment log("QXUTIL_LOG", "/nonexistent/file");
    EXPECT_EXIT((ErrOut("still here"), std::_Exit(0)), testing::ExitedWithCode(0),
                "can't open the log file.*\nstill here\n");
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
    static std::optional<LogCapture> second;
    const QXLogSink takeOver = [](uint32_t, const char *, void *) {
        second.emplace();
        ErrOut("inner");
    };
    qxSetLogSink(takeOver, nullptr);
    ErrOut("outer");
    EXPECT_EQ(second->take(), Texts{"inner"});
    second.reset();
}

} // namespace
