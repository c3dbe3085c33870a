#include "progress.h"

#include <cstdio>

bool progressDue(const Progress &progress) {
    return progress.enabled && std::chrono::steady_clock::now() - progress.last >= kProgressInterval;
}

void progressShow(Progress &progress, const std::string &text) {
    if (!progress.enabled) {
        return;
    }
    progress.last = std::chrono::steady_clock::now();
    const std::size_t left = text.size() < progress.width ? progress.width - text.size() : 0;
    std::fprintf(stderr, "\r%s%s", text.c_str(), std::string(left, ' ').c_str());
    std::fflush(stderr);
    progress.width = text.size();
}

void progressErase(Progress &progress) {
    if (progress.width != 0) {
        std::fprintf(stderr, "\r%s\r", std::string(progress.width, ' ').c_str());
        std::fflush(stderr);
        progress.width = 0;
    }
}
