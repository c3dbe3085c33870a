#include "system.h"

#include <cstdlib>
#include <filesystem>

#include <windows.h>

void *systemReserve(std::size_t size, uintptr_t at) {
    return VirtualAlloc(reinterpret_cast<void *>(at), size, MEM_RESERVE, PAGE_NOACCESS);
}

void systemProtect(void *pages, std::size_t size, Access access) {
    if (access == Access::none) {
        VirtualFree(pages, size, MEM_DECOMMIT);
        return;
    }
    DWORD before = 0;
    VirtualAlloc(pages, size, MEM_COMMIT, PAGE_READWRITE);
    VirtualProtect(pages, size, access == Access::write ? PAGE_READWRITE : PAGE_READONLY, &before);
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
