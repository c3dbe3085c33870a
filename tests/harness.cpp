#include "harness.h"

#include "util/qxutil.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

std::atomic<int64_t> out = 0;
std::atomic<uint64_t> asked = 0;
std::atomic<uint32_t> last = 0;
std::atomic<uint64_t> failAt = 0; // number of the request that fails; 0: none
std::atomic<bool> failBehind = false;
std::atomic<bool> failed = false;

} // namespace

void *(*replaceAlloc)(uint32_t size) = nullptr;
void (*replaceFree)(void *block) = nullptr;

void failNth(uint32_t nth, bool andAllBehind) {
    failed = false;
    failBehind = andAllBehind;
    failAt = nth == 0 ? 0 : asked + nth;
}

bool anyFailed() { return failed; }
int64_t blocksOut() { return out; }
uint64_t requests() { return asked; }
uint32_t lastRequest() { return last; }

extern "C" __attribute__((visibility("default"))) void *QXAlloc(uint32_t size) {
    const uint64_t number = ++asked;
    last = size;
    if (replaceAlloc != nullptr) {
        return replaceAlloc(size);
    }
    const uint64_t fails = failAt;
    if (fails != 0 && (number == fails || (failBehind && number > fails))) {
        failed = true;
        return nullptr;
    }
    void *block = std::malloc(size);
    if (block != nullptr) {
        std::memset(block, 0xCD, size < 65536 ? size : 65536); // nobody may count on a content
        ++out;
    }
    return block;
}

extern "C" __attribute__((visibility("default"))) void QXFree(void *block) {
    if (replaceFree != nullptr) {
        replaceFree(block);
        return;
    }
    --out;
    std::free(block);
}

LogCapture::LogCapture() { qxSetLogSink(sink, this); }
LogCapture::~LogCapture() { qxSetLogSink(nullptr, nullptr); }

void LogCapture::sink(uint32_t severity, const char *message, void *context) {
    auto *const self = static_cast<LogCapture *>(context);
    const std::scoped_lock hold(self->lock_);
    self->messages_.emplace_back(severity, message);
}

Texts LogCapture::take() {
    const std::scoped_lock hold(lock_);
    Texts texts;
    for (auto &message : std::exchange(messages_, {})) {
        texts.push_back(std::move(message.second));
    }
    return texts;
}

std::vector<uint32_t> LogCapture::severities() {
    const std::scoped_lock hold(lock_);
    std::vector<uint32_t> all;
    for (const auto &message : messages_) {
        all.push_back(message.first);
    }
    return all;
}

Environment::Environment(const char *name, const char *value)
    : name_(name), before_(std::getenv(name) != nullptr ? std::getenv(name) : ""),
      wasSet_(std::getenv(name) != nullptr) {
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

Environment::~Environment() { wasSet_ ? setenv(name_.c_str(), before_.c_str(), 1) : unsetenv(name_.c_str()); }

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "brenvole-XXXXXX";
    path = std::string(mkdtemp(pattern.data())) + "/";
}

TemporaryDirectory::~TemporaryDirectory() { std::filesystem::remove_all(path); }

std::string TemporaryDirectory::write(const std::string &name, const std::string &content) const {
    const std::filesystem::path file = path + name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file;
}
