#include "harness.h"
#include "util/qxutil.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <random>

namespace {

std::optional<uint32_t> number(const char *section, const char *key) {
    uint32_t value = 77;
    if (qxCFGValueDword(-1, section, key, &value, 0) != 0) {
        EXPECT_EQ(value, 77u); // left alone
        return std::nullopt;
    }
    return value;
}

std::optional<std::string> text(const char *section, const char *key, uint32_t capacity = 64) {
    std::string buffer(capacity + 1, '\x7E');
    uint32_t size = capacity;
    if (qxCFGValueString(-1, section, key, buffer.data(), &size, 0) != 0) {
        EXPECT_EQ(buffer, std::string(capacity + 1, '\x7E'));
        return std::nullopt;
    }
    EXPECT_EQ(buffer[capacity], '\x7E');
    EXPECT_EQ(size, std::string(buffer.c_str()).size() + 1);
    return buffer.c_str();
}

constexpr const char *kTrace = "Brenvole\\DFrameTrace";

TEST(Config, NumbersAndTexts) {
    const TemporaryDirectory directory;
    const std::string file = directory.write("store.ini", "\xEF\xBB\xBF; a comment\r\n"
                                                          "[Brenvole\\DFrameTrace] ; and one here\r\n"
                                                          "Enable=1\r\n"
                                                          "  hex = 0xFFFFFFFF ; all bits\n"
                                                          "File = \"/tmp/a; b.csv\" # quoted\n"
                                                          "Empty=\n"
                                                          "Large=4294967296\nMinus=-1\nWord=yes\nTail=1x\n"
                                                          "Twice=1\nTWICE=2\n"
                                                          "[qxOSCfg\\Brenvole]\nDFrameTrace=0x10");
    const Environment store("QXUTIL_CONFIG", file.c_str());
    const LogCapture log;
    EXPECT_EQ(number(kTrace, "Enable"), 1u);
    EXPECT_EQ(number("BRENVOLE\\dframetrace", "HEX"), 0xFFFFFFFFu);
    EXPECT_EQ(number(kTrace, "Twice"), 2u);
    EXPECT_EQ(number("qxOSCfg\\Brenvole", "DFrameTrace"), 16u);
    for (const char *none : {"Large", "Minus", "Word", "Tail", "Empty", "File", "missing"}) {
        EXPECT_EQ(number(kTrace, none), std::nullopt) << none;
    }
    EXPECT_EQ(number("Brenvole", "Enable"), std::nullopt);
    EXPECT_EQ(text(kTrace, "File"), "/tmp/a; b.csv");
    EXPECT_EQ(text(kTrace, "File", 14), "/tmp/a; b.csv"); // terminator included
    EXPECT_EQ(text(kTrace, "File", 13), std::nullopt);
    EXPECT_EQ(text(kTrace, "Empty"), "");
    EXPECT_EQ(text(kTrace, "Empty", 0), std::nullopt);
    EXPECT_NE(qxCFGValueDword(-1, nullptr, "Enable", nullptr, 0), 0u);
    EXPECT_NE(qxCFGValueString(-1, kTrace, nullptr, nullptr, nullptr, 0), 0u);
}

TEST(Config, BrokenLinesAreToldOnceAndSkipped) {
    const TemporaryDirectory directory;
    const std::string file =
        directory.write("store.ini", "orphan=1\n[Brenvole]\nnonsense\n=5\nDFrameTrace=1\n[broken\nDFrameTrace=9\n");
    const Environment store("QXUTIL_CONFIG", file.c_str());
    LogCapture log;
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), 1u);
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), 1u);
    EXPECT_EQ(log.take(),
              Texts{"WARNING(qxutil): " + file + ": not understood and skipped: lines 1, 3, 4 and others\n"});
}

TEST(Config, ReadAgainWhenItHasChanged) {
    const TemporaryDirectory directory;
    const Environment own("QXUTIL_CONFIG", nullptr);
    const Environment place("QXUTIL_CONFIG_DIR", directory.path.c_str());
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), std::nullopt);
    directory.write("qxutil.ini", "[Brenvole]\nDFrameTrace=1\n");
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), 1u);
    directory.write("qxutil.ini", "[Brenvole]\nDFrameTrace=7\n"); // as long, and maybe as old
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), 7u);
    std::filesystem::remove(directory.path + "qxutil.ini");
    EXPECT_EQ(number("Brenvole", "DFrameTrace"), std::nullopt);
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
        EXPECT_EQ(number("end", "key"), std::nullopt);
    }
}

std::string configDirectory(int32_t create) {
    char buffer[QX_PATH_CAPACITY];
    qxOSGetConfigDir(buffer, create);
    return buffer;
}

TEST(Directories, EndInASlashOrAreEmpty) {
    const TemporaryDirectory directory;
    const std::string home = directory.path.substr(0, directory.path.size() - 1);
    const Environment own("QXUTIL_CONFIG_DIR", nullptr);
    const Environment user("XDG_CONFIG_HOME", nullptr);
    const Environment at("HOME", home.c_str());
    EXPECT_EQ(configDirectory(0), directory.path + ".config/qxutil/");
    EXPECT_FALSE(std::filesystem::exists(directory.path + ".config"));
    EXPECT_EQ(configDirectory(1), directory.path + ".config/qxutil/");
    EXPECT_TRUE(std::filesystem::is_directory(directory.path + ".config/qxutil"));
    const std::string fits(QX_PATH_CAPACITY - 2, 'x');
    for (const auto &[name, value, expected] :
         std::vector<std::array<std::string, 3>>{{"XDG_CONFIG_HOME", "/somewhere", "/somewhere/qxutil/"},
                                                 {"XDG_CONFIG_HOME", "relative", directory.path + ".config/qxutil/"},
                                                 {"QXUTIL_CONFIG_DIR", "/a/b", "/a/b/"},
                                                 {"QXUTIL_CONFIG_DIR", fits, fits + "/"},
                                                 {"QXUTIL_CONFIG_DIR", fits + "x", ""},
                                                 {"HOME", "", ""}}) {
        const Environment set(name.c_str(), value.c_str());
        EXPECT_EQ(configDirectory(0), expected) << name << " " << value;
    }
    const Environment file("QXUTIL_CONFIG_DIR", directory.write("file", "").c_str());
    EXPECT_EQ(configDirectory(1), ""); // no directory, and none can be made
}

TEST(Directories, Temporary) {
    char buffer[16];
    const auto temporary = [&](const char *set, uint32_t capacity) {
        const Environment variable("TMPDIR", set);
        qxOSGetTempDir(buffer, capacity);
        return std::string(buffer);
    };
    EXPECT_EQ(temporary("/var/tmp", sizeof buffer), "/var/tmp/");
    EXPECT_EQ(temporary("/too/long/to/fit/here", sizeof buffer), "/tmp/");
    EXPECT_EQ(temporary(nullptr, 5), "");
}

} // namespace
