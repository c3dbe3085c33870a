#include "write.h"

#include <algorithm>

#include <windows.h>

// Nothing interrupts a thread here, and no write raises a signal.
std::size_t qxWriteOut(std::intptr_t file, std::string_view text, bool &) noexcept {
    constexpr std::size_t kAtOnce = 1 << 30; // the system counts in 32 bits
    std::size_t done = 0;
    DWORD count = 1;
    while (done < text.size() && count != 0) {
        const auto most = static_cast<DWORD>(std::min(text.size() - done, kAtOnce));
        if (WriteFile(reinterpret_cast<HANDLE>(file), text.data() + done, most, &count, nullptr) == 0) {
            count = 0;
        }
        done += count;
    }
    return done;
}
