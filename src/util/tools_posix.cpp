#include "tools.h"

#include <atomic>

// Of the address sanitizer's runtime, where the process has it.
extern "C" {
void __asan_poison_memory_region(void const volatile *address, std::size_t bytes)
    __attribute__((weak)); // NOLINT(bugprone-reserved-identifier)
void __asan_unpoison_memory_region(void const volatile *address, std::size_t bytes)
    __attribute__((weak)); // NOLINT(bugprone-reserved-identifier)
void __asan_get_shadow_mapping(std::size_t *scale, std::size_t *offset)
    __attribute__((weak)); // NOLINT(bugprone-reserved-identifier)
}

namespace {

// Requests that Valgrind's core and its memory checker understand.
constexpr uint64_t kRunningOnValgrind = 0x1001;
constexpr uint64_t kMakeNoAccess = 0x4D430000; // 'M', 'C', and a number
constexpr uint64_t kMakeUndefined = 0x4D430001;

// A sequence of instructions without effect, which Valgrind knows. 0 without it.
uint64_t askValgrind([[maybe_unused]] uint64_t request, [[maybe_unused]] uint64_t address,
                     [[maybe_unused]] uint64_t bytes) {
    uint64_t answer = 0;
#ifdef __x86_64__
    const volatile uint64_t arguments[6] = {request, address, bytes, 0, 0, 0};
    asm volatile("rolq $3, %%rdi\n\trolq $13, %%rdi\n\trolq $61, %%rdi\n\trolq $51, %%rdi\n\txchgq %%rbx, %%rbx"
                 : "+d"(answer)
                 : "a"(arguments)
                 : "cc", "memory");
#endif
    return answer;
}

bool underSanitizer() { return &__asan_poison_memory_region != nullptr; }

// The sanitizer keeps its own memory, and ends a process that names it, below the addresses of most programs' data.
// What lies above those is no memory of the process's.
bool isData(uint64_t address, uint64_t bytes) {
    constexpr uint64_t kEndOfData = uint64_t{1} << 47;
    std::size_t scale = 0;
    std::size_t offset = 0;
    if (&__asan_get_shadow_mapping == nullptr || bytes > kEndOfData || address > kEndOfData - bytes) {
        return false;
    }
    __asan_get_shadow_mapping(&scale, &offset);
    return address >= (kEndOfData >> scale) + offset || address + bytes <= offset;
}

} // namespace

bool qxUnderValgrind() noexcept {
    static constinit std::atomic<int> known = -1;
    int answer = known.load(std::memory_order_relaxed);
    if (answer < 0) {
        answer = askValgrind(kRunningOnValgrind, 0, 0) != 0 ? 1 : 0;
        known.store(answer, std::memory_order_relaxed);
    }
    return answer != 0;
}

bool qxWatched() noexcept { return underSanitizer() || qxUnderValgrind(); }

void qxForbidAccess(uint64_t address, uint64_t bytes) noexcept {
    if (underSanitizer() && isData(address, bytes)) {
        __asan_poison_memory_region(reinterpret_cast<void *>(address), bytes);
    }
    if (qxUnderValgrind()) {
        askValgrind(kMakeNoAccess, address, bytes);
    }
}

void qxAllowAccess(uint64_t address, uint64_t bytes) noexcept {
    if (underSanitizer() && isData(address, bytes)) {
        __asan_unpoison_memory_region(reinterpret_cast<void *>(address), bytes);
    }
    if (qxUnderValgrind()) {
        askValgrind(kMakeUndefined, address, bytes);
    }
}
