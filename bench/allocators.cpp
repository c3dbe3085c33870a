#include "allocators.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <malloc.h>
#include <unistd.h>

namespace {

constexpr const char *kTunables = "GLIBC_TUNABLES";
constexpr const char *kRoom = "glibc.rtld.optional_static_tls=16384"; // bytes; jemalloc alone takes some 3000

// How each is at its best here: nothing goes back to the system between two rounds, and no address space is shared
// with the C library's heap.
struct Setting {
    const char *name;
    const char *value;
};
constexpr Setting kSettings[] = {
    {"TCMALLOC_SKIP_SBRK", "true"},
    {"TCMALLOC_RELEASE_RATE", "0"},
    {"MALLOC_CONF", "dirty_decay_ms:-1,muzzy_decay_ms:-1,tcache_max:8388608"},
    {"MIMALLOC_RESERVE_OS_MEMORY", "256MiB"}, // huge blocks come from there without a call to the system
    {"MIMALLOC_DECOMMIT_DELAY", "100000"},    // ms
    {"MIMALLOC_ALLOW_DECOMMIT", "0"},
};

template <class Function> Function symbol(void *library, const char *name) {
    return reinterpret_cast<Function>(dlsym(library, name));
}

void *libraryOf(const char *file) {
    for (const Setting &setting : kSettings) {
        setenv(setting.name, setting.value, 1); // NOLINT(concurrency-mt-unsafe): guarded by a static's initialisation
    }
    void *const library = dlopen(file, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    for (const Setting &setting : kSettings) {
        unsetenv(setting.name); // NOLINT(concurrency-mt-unsafe): as above; children are on their own
    }
    return library;
}

// What was asked for is what was found, and it is not the C library's.
bool isOf(const void *function, const char *file) {
    Dl_info info{};
    return function != nullptr && dladdr(function, &info) != 0 && std::strstr(info.dli_fname, file) != nullptr;
}

const Allocator *load(const char *file, Allocator &into) {
    void *const library = libraryOf(file);
    if (library == nullptr) {
        return nullptr;
    }
    into = {symbol<decltype(&std::malloc)>(library, "malloc"), symbol<decltype(&std::calloc)>(library, "calloc"),
            symbol<decltype(&std::free)>(library, "free")};
    const bool whole = isOf(reinterpret_cast<void *>(into.take), file) &&
                       isOf(reinterpret_cast<void *>(into.takeCleared), file) &&
                       isOf(reinterpret_cast<void *>(into.giveBack), file);
    return whole ? &into : nullptr;
}

constexpr const char *kTcmalloc = "libtcmalloc_minimal.so.4";
constexpr const char *kJemalloc = "libjemalloc.so.2";
constexpr const char *kMimalloc = "libmimalloc.so.2";

// The C library arrives at such limits by itself after its first large blocks; it has them from the start, so that
// the order of the works doesn't matter.
const Allocator *loadCLibrary(Allocator &into) {
    constexpr int kMapFrom = 32 << 20;
    constexpr int kKeep = 256 << 20;
    mallopt(M_MMAP_THRESHOLD, kMapFrom); // NOLINT(concurrency-mt-unsafe): a static's initialisation, no other thread
    mallopt(M_TRIM_THRESHOLD, kKeep);    // NOLINT(concurrency-mt-unsafe): is at work yet
    into = {&std::malloc, &std::calloc, &std::free};
    return &into;
}

template <class Function> Function versionFunction(const char *file, const char *name) {
    void *const library = dlopen(file, RTLD_NOW | RTLD_NOLOAD);
    return library != nullptr ? symbol<Function>(library, name) : nullptr;
}

} // namespace

const Allocator *allocatorGet(AllocatorKind kind) {
    static std::array<Allocator, 4> records;
    static const std::array<const Allocator *, 4> loaded = {loadCLibrary(records[0]), load(kTcmalloc, records[1]),
                                                            load(kJemalloc, records[2]), load(kMimalloc, records[3])};
    return loaded[static_cast<std::size_t>(kind)];
}

void allocatorsMakeRoom(char **argv) {
    // There is one thread yet. NOLINTBEGIN(concurrency-mt-unsafe)
    const char *const present = std::getenv(kTunables);
    const std::string tunables = present != nullptr ? present : "";
    if (tunables.find(kRoom) == std::string::npos) {
        setenv(kTunables, (tunables.empty() ? kRoom : tunables + ':' + kRoom).c_str(), 1);
        execv("/proc/self/exe", argv);
    }
    // NOLINTEND(concurrency-mt-unsafe)
}

std::string allocatorVersions() {
    allocatorGet(AllocatorKind::CLibrary);
    std::string text = std::string("glibc ") + gnu_get_libc_version();
    if (auto *const of = versionFunction<const char *(*)(int *, int *, const char **)>(kTcmalloc, "tc_version")) {
        text += std::string(", tcmalloc ") + of(nullptr, nullptr, nullptr);
    }
    const char *version = nullptr;
    std::size_t size = sizeof version;
    auto *const control =
        versionFunction<int (*)(const char *, void *, std::size_t *, void *, std::size_t)>(kJemalloc, "mallctl");
    if (control != nullptr && control("version", &version, &size, nullptr, 0) == 0) {
        text += ", jemalloc " + std::string(version).substr(0, std::string(version).find('-'));
    }
    if (auto *const of = versionFunction<int (*)()>(kMimalloc, "mi_version")) {
        const int number = of(); // two digits for the last part, and at times for the middle one
        text += ", mimalloc " + std::to_string(number / 100) + '.' + std::to_string(number / 10 % 10) + '.' +
                std::to_string(number % 10);
    }
    return text;
}
