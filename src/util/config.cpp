// The configuration store: an INI file, read when it is first asked for and again whenever it has changed.
//
//   [Brenvole\DFrameTrace]     a section; backslashes are plain characters
//   Enable=1                   decimal, or 0x and hexadecimal digits
//   File="/tmp/a trace.csv"    a text; one pair of quotes around it is taken off
//   ; or #                     start a comment line, and a comment behind a number
//
// Blanks around names and values don't count, names are compared without regard to the case of ASCII letters,
// and of several entries of one name the last holds. The file belongs to the user and may hold anything: a line
// that can't be understood is told once and skipped.
#include "allocating.h"
#include "exit.h"
#include "fork.h"
#include "ini.h"
#include "platform.h"
#include "qxutil.h"
#include "static_lock.h"
#include "uninterrupted.h"

#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

namespace {

// A store that is larger is no configuration; reading it would only cost the host its memory.
constexpr std::size_t kLargestStore = 1u << 20;

// Found is 0; a caller tells only that from the rest.
constexpr uint32_t kFound = 0;
constexpr uint32_t kNotFound = 2;
constexpr uint32_t kTooLong = 234;

using Clock = std::chrono::steady_clock;

struct Store {
    std::string path;
    QXFileStamp stamp;
    Clock::time_point freshUntil; // questions that come at once behind one another share a look at the file
    std::string content;
    IniEntries entries;
};
Store *store = nullptr; // made at the first question, deleted only when the library is unloaded.
                        // Under qxStoreLock; messages go out after it is left, since a sink may ask the store

// Where the store is; empty if nowhere. In `built`, if the path has to be made up: memory would cost more than the
// rest, and the trace asks again and again.
constexpr char kStoreName[] = "qxutil.ini";
using BuiltPath = char[QX_PATH_CAPACITY + sizeof kStoreName];
const char *storePath(BuiltPath &built) {
    if (const char *own = qxEnvironment("QXUTIL_CONFIG")) {
        return own;
    }
    qxOSGetConfigDir(built, 0);
    if (*built != 0) {
        std::memcpy(built + std::strlen(built), kStoreName, sizeof kStoreName);
    }
    return built;
}

// Lock held. Reads the file anew if it is another one, or has changed, since the last time. What it replaces goes
// when all of the new is there, so that want of memory in between loses nothing.
void refresh(std::string &complaints) {
    BuiltPath built;
    const char *const path = storePath(built);
    const Clock::time_point begin = Clock::now();
    if (store != nullptr && begin < store->freshUntil && store->path == path) {
        return;
    }
    Store fresh;
    fresh.path = path;
    fresh.stamp = fresh.path.empty() ? QXFileStamp{} : qxFileStamp(fresh.path.c_str());
    const Clock::time_point end = Clock::now();
    // Nobody changes a file in half the time that it takes to look at it.
    fresh.freshUntil = fresh.stamp.bSettled ? end + (end - begin) / 2 : end;
    if (store == nullptr) {
        store = new Store;
    } else if (store->path == fresh.path && store->stamp == fresh.stamp && store->stamp.bSettled) {
        store->freshUntil = fresh.freshUntil;
        return;
    }
    if (fresh.stamp.bExists && !qxReadFile(fresh.path.c_str(), kLargestStore, fresh.content)) {
        complaints = fresh.path + ": can't be read as a configuration";
    }
    if (store->path == fresh.path && store->content == fresh.content) {
        fresh.entries = store->entries; // nothing to be told twice
        if (store->stamp == fresh.stamp) {
            complaints.clear();
        }
    } else {
        fresh.entries = iniParse(fresh.content, fresh.path, complaints);
    }
    *store = std::move(fresh);
}

// The text of an entry, and the message that reading the store has left.
std::optional<std::string> find(const char *section, const char *key) {
    std::string complaints;
    std::optional<std::string> value;
    qxHookFork();
    qxHookExit();
    {
        const QXAllocating mark;
        const std::scoped_lock hold(qxStoreLock);
        refresh(complaints);
        if (!store->entries.empty()) { // often it is: then no name has to be made up
            const auto entry = store->entries.find(iniName(section, key));
            if (entry != store->entries.end()) {
                value = entry->second;
            }
        }
    }
    if (!complaints.empty()) {
        ErrFmtOut(QX_WARNING, 0, 0, "WARNING(qxutil): %s\n", complaints.c_str());
    }
    return value;
}

} // namespace

void qxForgetStore() noexcept {
    delete store;
    store = nullptr;
}

uint32_t qxCFGValueDword(int32_t, const char *section, const char *key, uint32_t *value, uint32_t) {
    if (section == nullptr || key == nullptr || value == nullptr) {
        return kNotFound;
    }
    const QXUninterrupted whole; // a cancelled thread would get stuck in what is caught below
    try {
        const std::optional<std::string> text = find(section, key);
        return text && iniNumber(*text, *value) ? kFound : kNotFound;
    } catch (...) { // no memory to read the store with
        return kNotFound;
    }
}

uint32_t qxCFGValueString(int32_t, const char *section, const char *key, char *buffer, uint32_t *size, uint32_t) {
    if (section == nullptr || key == nullptr || buffer == nullptr || size == nullptr) {
        return kNotFound;
    }
    const QXUninterrupted whole;
    try {
        const std::optional<std::string> text = find(section, key);
        if (!text) {
            return kNotFound;
        }
        if (text->size() >= *size) {
            return kTooLong;
        }
        std::memcpy(buffer, text->c_str(), text->size() + 1);
        *size = static_cast<uint32_t>(text->size() + 1);
        return kFound;
    } catch (...) {
        return kNotFound;
    }
}
