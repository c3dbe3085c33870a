// Directories that the system hands out. All end in a slash; a path that doesn't fit is none.
#include "platform.h"
#include "qxutil.h"

#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

#include <sys/stat.h>

namespace {

// Writes `path`, `below` and a slash at their end. False if it doesn't fit, with an empty buffer.
bool copyOut(std::string_view path, std::string_view below, char *buffer, std::size_t capacity) {
    const std::string_view last = below.empty() ? path : below;
    const std::size_t length = path.size() + below.size() + (last.ends_with('/') ? 0 : 1);
    if (length >= capacity) {
        return false;
    }
    std::memcpy(buffer, path.data(), path.size());
    std::memcpy(buffer + path.size(), below.data(), below.size());
    buffer[length - 1] = '/';
    buffer[length] = 0;
    return true;
}

// QXUTIL_CONFIG_DIR, else `qxutil` below the user's configuration directory. False if there is none.
bool configDirectory(char *buffer) {
    if (const char *own = qxEnvironment("QXUTIL_CONFIG_DIR")) {
        return copyOut(own, "", buffer, QX_PATH_CAPACITY);
    }
    const char *user = qxEnvironment("XDG_CONFIG_HOME");
    if (user != nullptr && *user == '/') { // a relative one is to be ignored
        return copyOut(user, "/qxutil", buffer, QX_PATH_CAPACITY);
    }
    const char *home = qxEnvironment("HOME");
    return home != nullptr && *home == '/' && copyOut(home, "/.config/qxutil", buffer, QX_PATH_CAPACITY);
}

// Makes the directory and what is missing above it, for the user alone. False if it isn't there at the end.
bool makeDirectory(const std::string &path) {
    constexpr mode_t kForTheUserAlone = 0700;
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), kForTheUserAlone);
    }
    mkdir(path.c_str(), kForTheUserAlone);
    std::error_code error;
    return std::filesystem::is_directory(path, error);
}

} // namespace

void qxOSGetConfigDir(char *buffer, int32_t create) {
    if (buffer == nullptr) {
        return;
    }
    *buffer = 0;
    if (!configDirectory(buffer) || create == 0) {
        return;
    }
    try {
        if (makeDirectory(buffer)) {
            return;
        }
    } catch (const std::bad_alloc &) { // then there is no directory either
    }
    *buffer = 0;
}

void qxOSGetTempDir(char *buffer, uint32_t capacity) {
    if (buffer == nullptr || capacity == 0) {
        return;
    }
    *buffer = 0;
    const char *own = qxEnvironment("TMPDIR");
    if (own == nullptr || !copyOut(own, "", buffer, capacity)) {
        copyOut("/tmp/", "", buffer, capacity);
    }
}
