// What the tests share: an allocator in the place of QXAlloc that fails on request, fills and counts, and a sink
// that collects the messages.
#ifndef BRENVOLE_TESTS_HARNESS_H
#define BRENVOLE_TESTS_HARNESS_H

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#if defined(__SANITIZE_THREAD__)
inline constexpr bool kThreadSanitized = true;
#else
inline constexpr bool kThreadSanitized = false;
#endif

// The n-th QXAlloc from now on gives null, and all behind it if `andAllBehind`; 0: none does.
void failNth(uint32_t nth, bool andAllBehind = false);
bool anyFailed();
// Blocks that are out, and how many have been asked for in all.
int64_t blocksOut();
uint64_t requests();
uint32_t lastRequest();
// Called in the place of QXAlloc or QXFree while set.
extern void *(*replaceAlloc)(uint32_t size);
extern void (*replaceFree)(void *block);

// Collects messages while it lives, as pairs of severity and text.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    // The texts since the last call.
    std::vector<std::string> take();
    std::vector<uint32_t> severities();

  private:
    static void sink(uint32_t severity, const char *message, void *context);
    std::mutex lock_;
    std::vector<std::pair<uint32_t, std::string>> messages_;
};

using Texts = std::vector<std::string>;

// Sets a variable for its own lifetime; null: unset.
class Environment {
  public:
    Environment(const char *name, const char *value);
    ~Environment();
    Environment(const Environment &) = delete;
    Environment &operator=(const Environment &) = delete;

  private:
    std::string name_;
    std::string before_;
    bool wasSet_;
};

// A directory of the test's own, with a slash at its end, removed behind it.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    std::string path;
    // Writes a file below it, with the directories in front of it; gives its full name.
    std::string write(const std::string &name, const std::string &content) const;
};

#endif
