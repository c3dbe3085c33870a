#include "system.h"

#include <cstdlib>
#include <filesystem>
#include <map>

#include <windows.h>

const bool systemKeepsPlaces = false;
const bool systemIsSlow = true;

void *systemReserve(std::size_t size, uintptr_t at) {
    return VirtualAlloc(reinterpret_cast<void *>(at), size, MEM_RESERVE, PAGE_NOACCESS);
}

namespace {

std::map<uintptr_t, std::size_t> committed; // to decommit what isn't takes the system its time, too

void decommit(uintptr_t from, std::size_t size) {
    for (auto at = committed.lower_bound(from); at != committed.end() && at->first < from + size;) {
        VirtualFree(reinterpret_cast<void *>(at->first), at->second, MEM_DECOMMIT);
        at = committed.erase(at);
    }
}

} // namespace

void systemProtect(void *pages, std::size_t size, Access access) {
    if (access == Access::none) {
        decommit(reinterpret_cast<uintptr_t>(pages), size);
        return;
    }
    committed[reinterpret_cast<uintptr_t>(pages)] = size;
    VirtualAlloc(pages, size, MEM_COMMIT, access == Access::write ? PAGE_READWRITE : PAGE_READONLY);
}

void systemRelease(void *pages, std::size_t) { VirtualFree(pages, 0, MEM_RELEASE); }

void *systemReplaced(const char *name) {
    static const HMODULE library = LoadLibraryA("QXUtil.dll");
    return reinterpret_cast<void *>(GetProcAddress(library, name));
}

void systemBlockSignals() {}

// The run-time library's copy and, through it, the system's own.
void systemSetVariable(const char *name, const char *value) { _putenv_s(name, value != nullptr ? value : ""); }

std::string systemNewDirectory() {
    static int number = 0;
    const auto path = std::filesystem::temp_directory_path() /
                      ("brenvole-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++number));
    std::filesystem::create_directories(path);
    return path.generic_string() + "/";
}

int mappingsAt(const void *address) {
    MEMORY_BASIC_INFORMATION about{};
    return VirtualQuery(address, &about, sizeof about) != 0 && about.State == MEM_COMMIT ? 1 : 0;
}
