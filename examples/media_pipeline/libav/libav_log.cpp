#include "libav_log.h"

#include "libav.h"

#include <array>
#include <cstdarg>
#include <cstddef>
#include <mutex>
#include <utility>

namespace {

constexpr std::size_t kLineLength = 512; // what is longer is cut

// libav's log is one per process, so this is too. The text stands in place: no exception may pass through libav.
std::mutex complaintsLock;
uint64_t complaints = 0;
std::array<char, kLineLength> firstLine{};

// Runs on any thread of ours or of a decoder.
void takeMessage(void *context, int level, const char *format, va_list arguments) {
    if (level > AV_LOG_ERROR) {
        return;
    }
    const std::lock_guard hold(complaintsLock);
    if (complaints++ == 0) {
        int prefix = 0; // no "[vp8 @ 0x...]" in front
        av_log_format_line2(context, level, format, arguments, firstLine.data(), static_cast<int>(kLineLength),
                            &prefix);
    }
}

} // namespace

void libavLogCatch() { av_log_set_callback(takeMessage); }

LibavComplaints libavLogTake() {
    const std::lock_guard hold(complaintsLock);
    LibavComplaints taken{std::exchange(complaints, 0), firstLine.data()};
    while (!taken.first.empty() && (taken.first.back() == '\n' || taken.first.back() == '.')) {
        taken.first.pop_back();
    }
    return taken;
}
