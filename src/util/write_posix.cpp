#include "write.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int64_t kPatienceMs = 1000; // a busy reader comes back sooner, and a host can bear it once

int64_t nowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// False if there is no room until then.
bool waitForRoom(int file, int64_t until) {
    pollfd room{file, POLLOUT, 0};
    for (;;) {
        const int64_t left = until - nowMs();
        const int ready = left > 0 ? poll(&room, 1, static_cast<int>(left)) : 0;
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
    }
}

std::size_t writeAll(int file, std::string_view text, bool &stalled) {
    std::size_t done = 0;
    int64_t until = 0; // 0: nothing to wait for
    while (done < text.size()) {
        const ssize_t count = write(file, text.data() + done, text.size() - done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
            stalled = false;
            until = 0;
        } else if (count < 0 && errno == EAGAIN && !stalled) {
            until = until != 0 ? until : nowMs() + kPatienceMs;
            stalled = !waitForRoom(file, until);
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    return done;
}

// Takes back what a write may have raised for this thread, which the system delivers before the process's own.
void consume(int raised) {
    constexpr timespec kAtOnce{0, 0};
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, raised);
    while (sigtimedwait(&signals, nullptr, &kAtOnce) < 0 && errno == EINTR) {
    }
}

} // namespace

int qxOpenToWrite(const char *path, int flags, unsigned rights) noexcept {
    static constinit std::atomic<bool> waited = false;
    constexpr int kPauseMs = 5;
    const int64_t until = nowMs() + kPatienceMs;
    for (;;) {
        const int file =
            open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | flags, static_cast<mode_t>(rights));
        if (file >= 0 || (errno != EINTR && errno != ENXIO)) { // ENXIO: a pipe without a reader
            return file;
        }
        if (errno == ENXIO && (waited || nowMs() >= until)) {
            waited = true;
            return -1;
        }
        if (errno == ENXIO) {
            poll(nullptr, 0, kPauseMs);
        }
    }
}

std::size_t qxWriteOut(std::intptr_t file, std::string_view text, bool &stalled) noexcept {
    constexpr int kRaised[] = {SIGPIPE, SIGXFSZ}; // by a pipe without a reader, and by a limit of file sizes
    sigset_t ours;
    sigset_t pending;
    sigset_t mask;
    sigemptyset(&ours);
    for (const int raised : kRaised) {
        sigaddset(&ours, raised);
    }
    sigpending(&pending); // of the host's, which it keeps
    pthread_sigmask(SIG_BLOCK, &ours, &mask);
    const std::size_t done = writeAll(static_cast<int>(file), text, stalled);
    for (const int raised : kRaised) {
        if (done != text.size() && sigismember(&pending, raised) == 0) {
            consume(raised);
        }
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return done;
}
