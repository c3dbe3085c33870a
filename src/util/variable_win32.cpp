#include "variable_win32.h"

#include "static_lock.h"

#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include <windows.h>

namespace {

QXStaticLock valuesLock;
// What was read, by name; never deleted, since values may be asked for until the process ends. A handful of names.
std::map<std::string, std::string, std::less<>> *values = nullptr;

// The value as the system has it now, if it is set.
bool readNow(const char *name, std::string &value) {
    for (DWORD size = 128;;) {
        value.resize(size);
        SetLastError(ERROR_SUCCESS);
        const DWORD length = GetEnvironmentVariableA(name, value.data(), size);
        if (length == 0 && GetLastError() == ERROR_ENVVAR_NOT_FOUND) {
            return false;
        }
        if (length < size) {
            value.resize(length);
            return true;
        }
        size = length; // what it takes, with the terminator
    }
}

} // namespace

const char *qxReadVariable(const char *name) noexcept {
    const DWORD error = GetLastError();
    const char *result = nullptr;
    try {
        std::string value;
        if (readNow(name, value)) {
            const std::scoped_lock hold(valuesLock);
            if (values == nullptr) {
                values = new std::map<std::string, std::string, std::less<>>;
            }
            std::string &kept = (*values)[name];
            if (kept != value) { // else the pointers that are out stay good
                kept = value;
            }
            result = kept.c_str();
        }
    } catch (const std::bad_alloc &) { // as if it weren't set
    }
    SetLastError(error);
    return result;
}
