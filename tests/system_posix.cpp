#include "system.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <dlfcn.h>
#include <sys/mman.h>

const bool systemKeepsPlaces = true;
const bool systemIsSlow = false;

void *systemReserve(std::size_t size, uintptr_t at) {
    const int place = at != 0 ? MAP_FIXED_NOREPLACE : 0;
    void *const pages = mmap(reinterpret_cast<void *>(at), size, PROT_NONE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | place, -1, 0);
    return pages != MAP_FAILED ? pages : nullptr;
}

void systemProtect(void *pages, std::size_t size, Access access) {
    if (access == Access::none) { // and the memory goes
        static_cast<void>(
            mmap(pages, size, PROT_NONE, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    } else {
        mprotect(pages, size, access == Access::write ? PROT_READ | PROT_WRITE : PROT_READ);
    }
}

void systemRelease(void *pages, std::size_t size) { munmap(pages, size); }

void *systemReplaced(const char *name) { return dlsym(RTLD_NEXT, name); }

void systemBlockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

void systemSetVariable(const char *name, const char *value) {
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

std::string systemNewDirectory() {
    std::string path = std::filesystem::temp_directory_path() / "brenvole-XXXXXX";
    return std::string(mkdtemp(path.data())) + "/";
}

uint64_t mappedPages() {
    uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages;
}

std::string mappingAt(const void *address) {
    std::ifstream maps("/proc/self/smaps");
    std::string found;
    bool inside = false;
    for (std::string line; std::getline(maps, line);) {
        uint64_t from = 0, to = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx ", &from, &to) == 2) {
            inside = reinterpret_cast<uint64_t>(address) >= from && reinterpret_cast<uint64_t>(address) < to;
        }
        if (inside) { found += line + " "; }
    }
    return found;
}

int mappingsAt(const void *address) { return mappingAt(address).empty() ? 0 : 1; }
