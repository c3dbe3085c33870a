#include "harness.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>

namespace {

constexpr uint32_t kNone = 0x77777777; // what stands there before

uint32_t number(const char *section, const char *key) {
    uint32_t value = kNone;
    const bool found = qxCFGValueDword(-1, section, key, &value, 0) == 0;
    EXPECT_EQ(found, value != kNone);
    return value;
}

constexpr const char *kTrace = "Brenvole\\DFrameTrace";

// The buffer behind the question, and the size that it tells.
std::string text(const char *key, uint32_t size) {
    std::string buffer(8, '~');
    const bool found = qxCFGValueString(-1, kTrace, key, buffer.data(), &size, 0) == 0;
    return buffer + (found ? std::to_string(size) : "");
}

TEST(Config, NumbersAndTexts) {
    const std::string file = BRENVOLE_TEST_DATA "store.ini";
    const Environment store("QXUTIL_CONFIG", file.c_str());
    LogCapture log;
    EXPECT_EQ(number(kTrace, "Enable"), 1u);
    EXPECT_EQ(number("BRENVOLE\\dframetrace", "HEX"), 0xFFFFFFFFu);
    EXPECT_EQ(number(kTrace, "Twice"), 2u);
    EXPECT_EQ(number("qxOSCfg\\Brenvole", "DFrameTrace"), 16u);
    for (const char *none : {"Large", "Minus", "Word", "Tail", "Empty", "File", "missing"}) {
        EXPECT_EQ(number(kTrace, none), kNone) << none;
    }
    EXPECT_EQ(number("Brenvole", "Enable"), kNone);
    EXPECT_EQ(text("File", 6), std::string("/a; b\0~~6", 9)); // terminator included
    EXPECT_EQ(text("File", 5) + text("Empty", 0) + text("missing", 8), std::string(24, '~'));
    EXPECT_EQ(text("Empty", 1), std::string("\0~~~~~~~1", 9));
    EXPECT_NE(qxCFGValueDword(-1, nullptr, "Enable", nullptr, 0), 0u);
    EXPECT_NE(qxCFGValueString(-1, kTrace, nullptr, nullptr, nullptr, 0), 0u);
    EXPECT_EQ(log.take(), // once
              Texts{"WARNING(qxutil): " + file + ": not understood and skipped: lines 2, 14, 15 and others\n"});
}

TEST(Config, ReadAgainWhenItHasChanged) {
    const TemporaryDirectory directory;
    const Environment own("QXUTIL_CONFIG", nullptr);
    const Environment place("QXUTIL_CONFIG_DIR", directory.path.c_str());
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), kNone);
    directory.write("qxutil.ini", "[Brenvole]\nDFrameTrace=1\n");
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), 1u);
    directory.write("qxutil.ini", "[Brenvole]\nDFrameTrace=7\n"); // as long, and maybe as old
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), 7u);
    std::filesystem::remove(directory.path + "qxutil.ini");
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), kNone);
}

TEST(Config, HostileStores) {
    const TemporaryDirectory directory;
    const LogCapture log;
    std::mt19937 random(3);
    const std::string letters = "[]=;#\"\\ \t\r\n\n\nab0x1\xFF";
    for (int run = 0; run < 400; ++run) {
        std::string content;
        for (auto i = random() % 300; i > 0; --i) {
            content += random() % 50 == 0 ? '\0' : letters[random() % letters.size()];
        }
        content += "\n[end]\nkey=" + std::to_string(run);
        const Environment store("QXUTIL_CONFIG", directory.write(std::to_string(run), content).c_str());
        ASSERT_EQ(number("end", "key"), static_cast<uint32_t>(run)) << content;
    }
    const std::string large = "[end]\nkey=1\n" + std::string(2u << 20, '\n');
    for (const std::string &path : {directory.path, directory.write("large", large)}) {
        const Environment store("QXUTIL_CONFIG", path.c_str());
        EXPECT_EQ(number("end", "key"), kNone);
    }
}

} // namespace
