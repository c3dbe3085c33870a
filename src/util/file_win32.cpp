// What the configuration store needs of files.
#include "platform.h"

#include <algorithm>

#include <windows.h>

namespace {

// Times of files are in units of 100 ns; some file systems keep them in steps of 10 ms.
constexpr int64_t kNsPerTick = 100;
constexpr int64_t kSettledAfterNs = 50'000'000;

class File {
  public:
    File(const char *path, DWORD access)
        : handle_(CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
    ~File() {
        if (open()) {
            CloseHandle(handle_);
        }
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    // Neither a directory, which the system doesn't open so, nor a device or a pipe.
    bool open() const { return handle_ != INVALID_HANDLE_VALUE && GetFileType(handle_) == FILE_TYPE_DISK; }
    HANDLE handle() const { return handle_; }

  private:
    HANDLE handle_;
};

// Since 1970: since 1601, where the system begins to count, there are more than 64 bits hold.
int64_t nanoseconds(int64_t ticks) {
    constexpr int64_t kTicksTo1970 = 116'444'736'000'000'000;
    return (ticks - kTicksTo1970) * kNsPerTick;
}

int64_t nanoseconds(const FILETIME &time) {
    return nanoseconds(static_cast<int64_t>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime));
}

int64_t nowNs() {
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    return nanoseconds(now);
}

} // namespace

QXFileStamp qxFileStamp(const char *path) noexcept {
    const File file(path, FILE_READ_ATTRIBUTES);
    BY_HANDLE_FILE_INFORMATION about{};
    if (!file.open() || GetFileInformationByHandle(file.handle(), &about) == 0) {
        return {};
    }
    FILE_BASIC_INFO basic{};
    const int64_t written = nanoseconds(about.ftLastWriteTime);
    int64_t changed = written;
    if (GetFileInformationByHandleEx(file.handle(), FileBasicInfo, &basic, sizeof basic) != 0) {
        changed = std::max(written, nanoseconds(basic.ChangeTime.QuadPart)); // 0 where a file system has none
    }
    return {about.dwVolumeSerialNumber,
            uint64_t{about.nFileIndexHigh} << 32 | about.nFileIndexLow,
            uint64_t{about.nFileSizeHigh} << 32 | about.nFileSizeLow,
            written,
            changed,
            true,
            nowNs() - changed > kSettledAfterNs};
}

bool qxReadFile(const char *path, std::size_t limit, std::string &content) {
    content.clear();
    const File file(path, GENERIC_READ);
    LARGE_INTEGER size{};
    if (!file.open() || GetFileSizeEx(file.handle(), &size) == 0 || static_cast<uint64_t>(size.QuadPart) > limit) {
        return false;
    }
    content.resize(static_cast<std::size_t>(size.QuadPart));
    std::size_t done = 0;
    DWORD count = 1;
    while (done < content.size() && count != 0) {
        if (ReadFile(file.handle(), content.data() + done, static_cast<DWORD>(content.size() - done), &count,
                     nullptr) == 0) {
            content.clear();
            return false;
        }
        done += count;
    }
    content.resize(done); // a file may have become shorter
    return true;
}
