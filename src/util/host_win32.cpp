#include "host.h"

#include "variable_win32.h"
#include "write.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

namespace {

// In its directory as the system sees it for everybody; programs that this one starts don't get the handle.
std::FILE *openStream(HANDLE handle) {
    if (handle == INVALID_HANDLE_VALUE) {
        return nullptr;
    }
    const int file = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_WRONLY | _O_BINARY | _O_NOINHERIT);
    if (file < 0) {
        CloseHandle(handle);
        return nullptr;
    }
    std::FILE *const stream = _fdopen(file, "wb");
    if (stream == nullptr) {
        _close(file);
    }
    return stream;
}

// Others may read while it is written, and take the file away.
HANDLE create(const char *path, DWORD disposition, DWORD flags) {
    return CreateFileA(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       disposition, FILE_ATTRIBUTE_NORMAL | flags, nullptr);
}

} // namespace

const char *qxHostEnvironment(const char *name) noexcept { return qxReadVariable(name); }

std::FILE *qxCreateNamed(const char *path) noexcept { return openStream(create(path, CREATE_ALWAYS, 0)); }

// Its directory belongs to the user, and so do the rights that a new file there gets.
std::FILE *qxCreatePrivate(const char *path) noexcept {
    DeleteFileA(path); // what is left of an earlier process of that number
    return openStream(create(path, CREATE_NEW, FILE_FLAG_OPEN_REPARSE_POINT));
}

std::size_t qxHostWrite(std::FILE *file, std::string_view text, bool &stalled) noexcept {
    return qxWriteOut(_get_osfhandle(_fileno(file)), text, stalled);
}

void qxHostTakeBack(std::FILE *file, std::size_t length) noexcept {
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    LARGE_INTEGER back{};
    back.QuadPart = -static_cast<LONGLONG>(length);
    if (SetFilePointerEx(handle, back, nullptr, FILE_CURRENT) != 0) {
        SetEndOfFile(handle);
    }
}

// Processes don't fork here.
void hostHookUtilFork() noexcept {}
bool hostOwnLocks() noexcept { return false; }
bool hostTryLock(QXCRITICALSECTION &) noexcept { return false; }
void qxAtFork(void (*)(), void (*)(), void (*)()) noexcept {}
