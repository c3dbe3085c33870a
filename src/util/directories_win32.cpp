// Directories that the system hands out. All end in a backslash; a path that doesn't fit is none.
#include "platform.h"
#include "qxutil.h"

#include <cstring>
#include <string_view>

#include <windows.h>

namespace {

bool isSeparator(char letter) { return letter == '\\' || letter == '/'; }

bool isDirectory(const char *path) {
    const DWORD attributes = GetFileAttributesA(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Writes `path`, `below` and a backslash at their end. False if it doesn't fit.
bool copyOut(std::string_view path, std::string_view below, char *buffer, std::size_t capacity) {
    const std::string_view last = below.empty() ? path : below;
    const std::size_t length = path.size() + below.size() + (isSeparator(last.back()) ? 0 : 1);
    if (length >= capacity) {
        return false;
    }
    std::memcpy(buffer, path.data(), path.size());
    std::memcpy(buffer + path.size(), below.data(), below.size());
    if (!isSeparator(last.back())) {
        buffer[length - 1] = '\\';
    }
    buffer[length] = 0;
    return true;
}

// QXUTIL_CONFIG_DIR, else `qxutil` in the user's application data. False if there is none.
bool configDirectory(char *buffer) {
    if (const char *own = qxEnvironment("QXUTIL_CONFIG_DIR")) {
        return copyOut(own, "", buffer, QX_PATH_CAPACITY);
    }
    const char *const user = qxEnvironment("APPDATA");
    return user != nullptr && copyOut(user, "\\qxutil", buffer, QX_PATH_CAPACITY);
}

// Makes the directory and what is missing above it. False if it isn't there at the end. The path is left as it was.
bool makeDirectory(char *path) {
    for (char *at = path + 1; *at != 0; ++at) {
        if (isSeparator(*at)) {
            const char separator = *at;
            *at = 0;
            CreateDirectoryA(path, nullptr);
            *at = separator;
        }
    }
    return isDirectory(path);
}

} // namespace

void qxOSGetConfigDir(char *buffer, int32_t create) {
    if (buffer == nullptr) {
        return;
    }
    *buffer = 0;
    const DWORD error = GetLastError();
    if (configDirectory(buffer) && create != 0 && !makeDirectory(buffer)) {
        *buffer = 0;
    }
    SetLastError(error);
}

void qxOSGetTempDir(char *buffer, uint32_t capacity) {
    if (buffer == nullptr || capacity == 0) {
        return;
    }
    const DWORD length = GetTempPathA(capacity, buffer);
    if (length == 0 || length >= capacity) {
        *buffer = 0;
    }
}
