// The platform layer beside the system's own answers.
#include "harness.h"
#include "util/qxutil.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <windows.h>

namespace {

TEST(Platform, TellsWhatTheSystemTells) {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    ASSERT_TRUE(GlobalMemoryStatusEx(&status));
    uint64_t total = 0;
    uint64_t available = 0;
    qxOSMemoryStatus(&total, &available);
    EXPECT_EQ(total, status.ullTotalPhys);
    EXPECT_TRUE(available != 0 && available <= total);
    EXPECT_EQ(qxOSGetProcessId(), GetCurrentProcessId());
}

TEST(Directories, EndInABackslashOrAreEmpty) {
    char path[QX_PATH_CAPACITY];
    char system[MAX_PATH + 1];
    ASSERT_NE(GetTempPathA(sizeof system, system), 0U);
    qxOSGetTempDir(path, sizeof path);
    EXPECT_STREQ(path, system);
    qxOSGetTempDir(path, static_cast<uint32_t>(std::strlen(system))); // no room for its end
    EXPECT_STREQ(path, "");
    const std::string own = std::string(system) + "brenvole_test\\a\\b";
    for (const char *tail : {"", "\\", "/"}) {
        systemSetVariable("QXUTIL_CONFIG_DIR", (own + tail).c_str());
        qxOSGetConfigDir(path, 1);
        EXPECT_EQ(path, own + (*tail != 0 ? tail : "\\"));
        EXPECT_NE(GetFileAttributesA(path), INVALID_FILE_ATTRIBUTES);
    }
    systemSetVariable("QXUTIL_CONFIG_DIR", "Z:\\no\\such|place");
    qxOSGetConfigDir(path, 0);
    EXPECT_STREQ(path, "Z:\\no\\such|place\\");
    systemSetVariable("QXUTIL_CONFIG_DIR", nullptr);
    qxOSGetConfigDir(path, 0);
    EXPECT_EQ(std::string(path), std::string(std::getenv("APPDATA")) + "\\qxutil\\");
}

} // namespace
