// What the tests share: an allocator in the place of QXAlloc that fails on request, fills and counts, a system with
// as much memory as a test wants, and a sink that collects the messages.
#ifndef BRENVOLE_TESTS_HARNESS_H
#define BRENVOLE_TESTS_HARNESS_H

#include "sanitized.h"
#include "system.h"
#include "util/qxutil.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The n-th QXAlloc from now on gives null, and all behind it if `andAllBehind`; 0: none does.
void failNth(uint32_t nth, bool andAllBehind = false);
bool anyFailed();
// Blocks that are out, and how many have been asked for in all.
int64_t blocksOut();
// Blocks that belong to somebody whom a test doesn't ask about, and aren't counted, if not null.
extern const uint64_t *blocksAside;
uint64_t requests();
uint32_t lastRequest();
// Called in the place of QXAlloc or QXFree while set.
extern void *(*replaceAlloc)(uint32_t size);
extern void (*replaceFree)(void *block);

// The system's memory as the library sees it while this lives. The regions are addresses without memory behind them,
// none given out twice.
struct FakeSystem {
    uint64_t total = 16000000000;
    uint64_t available = 8000000000;
    uint64_t largest = UINT64_MAX; // a larger region is refused
    uint64_t tries = 0;
    uint64_t nextBase = uint64_t{1} << 50; // where no program can have memory
    std::map<uint64_t, uint64_t> regions;  // base and size of those that are out
    bool backed = false;                   // the addresses are reserved, and get memory when they are granted

    FakeSystem();
    ~FakeSystem();
};

// What qxOSGetTimeMs tells.
extern uint64_t clockMs;

// Collects messages while it lives.
struct LogCapture {
    std::mutex lock;
    std::vector<std::pair<uint32_t, std::string>> messages; // severity and text

    LogCapture() {
        const QXLogSink collect = [](uint32_t severity, const char *message, void *context) {
            auto *const self = static_cast<LogCapture *>(context);
            const std::scoped_lock hold(self->lock);
            self->messages.emplace_back(severity, message);
        };
        qxSetLogSink(collect, this);
    }
    ~LogCapture() { qxSetLogSink(nullptr, nullptr); }
    // The texts since the last call.
    std::vector<std::string> take() {
        const std::scoped_lock hold(lock);
        std::vector<std::string> texts;
        for (auto &message : std::exchange(messages, {})) { texts.push_back(std::move(message.second)); }
        return texts;
    }
};

using Texts = std::vector<std::string>;

// As messages print an address.
inline std::string hex16(uint64_t address) {
    char text[17];
    std::snprintf(text, sizeof text, "%016lX", static_cast<unsigned long>(address));
    return text;
}

// Runs body(0) to body(count - 1) at once, to their end.
void onThreads(int count, const std::function<void(int)> &body);

// Sets a variable for its own lifetime; null: unset.
struct Environment {
    std::string name;
    std::optional<std::string> before;

    Environment(const char *variable, const char *value) : name(variable) {
        if (const char *now = std::getenv(variable)) { before = now; }
        systemSetVariable(variable, value);
    }
    ~Environment() { systemSetVariable(name.c_str(), before ? before->c_str() : nullptr); }
};

// A directory of the test's own, with a slash at its end, removed behind it; or one that it was given.
struct TemporaryDirectory {
    const char *const given;
    std::string path = given != nullptr ? given : systemNewDirectory();

    explicit TemporaryDirectory(const char *place = nullptr) : given(place) {}
    ~TemporaryDirectory() {
        if (given == nullptr) { std::filesystem::remove_all(path); }
    }
    // Writes a file below it, with the directories in front of it; gives its full name.
    std::string write(const std::string &name, const std::string &content) const {
        const std::filesystem::path file = path + name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
        return file.generic_string();
    }
};

#endif
