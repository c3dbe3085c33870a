#include "libav_log.h"

#include "libav.h"

#include <cstdarg>
#include <mutex>
#include <utility>

namespace {

// libav's log is one per process, so this is too.
std::mutex complaintsLock;
LibavComplaints complaints;

// Runs on any thread of ours or of a decoder.
void takeMessage(void *context, int level, const char *format, va_list arguments) {
    if (level > AV_LOG_ERROR) {
        return;
    }
    char text[512] = "";
    int prefix = 0; // no "[vp8 @ 0x...]" in front
    av_log_format_line2(context, level, format, arguments, text, sizeof text, &prefix);
    std::string line = text;
    while (!line.empty() && (line.back() == '\n' || line.back() == '.')) {
        line.pop_back();
    }
    const std::lock_guard hold(complaintsLock);
    if (complaints.count++ == 0) {
        complaints.first = std::move(line);
    }
}

} // namespace

void libavLogCatch() { av_log_set_callback(takeMessage); }

LibavComplaints libavLogTake() {
    const std::lock_guard hold(complaintsLock);
    return std::exchange(complaints, LibavComplaints{});
}
