#include "harness.h"

#include <atomic>
#include <cstring>
#include <thread>

namespace {

std::atomic<int64_t> out = 0;
std::atomic<uint64_t> asked = 0;
std::atomic<uint32_t> last = 0;
std::atomic<uint64_t> failAt = 0; // number of the request that fails; 0: none
std::atomic<bool> failBehind = false;
std::atomic<bool> failed = false;
FakeSystem *fakeSystem = nullptr;

// QXUtil's own function, whose place one of ours has taken.
template <class Function> Function *replaced(Function *ours, const char *name) {
    return reinterpret_cast<decltype(ours)>(systemReplaced(name));
}

} // namespace

FakeSystem::FakeSystem() { fakeSystem = this; }
FakeSystem::~FakeSystem() { fakeSystem = nullptr; }

extern "C" void *qxOSVirtualAlloc(uint64_t size) {
    if (fakeSystem == nullptr) { return replaced(qxOSVirtualAlloc, "qxOSVirtualAlloc")(size); }
    ++fakeSystem->tries;
    if (size == 0 || size > fakeSystem->largest) { return nullptr; }
    const uint64_t base = fakeSystem->nextBase;
    fakeSystem->nextBase += (size + 65535) / 65536 * 65536;
    fakeSystem->regions[base] = size;
    if (fakeSystem->backed) { systemProtect(reinterpret_cast<void *>(base), size, Access::write); }
    return reinterpret_cast<void *>(base);
}

extern "C" void qxOSVirtualFree(void *base) {
    if (fakeSystem == nullptr || fakeSystem->regions.erase(reinterpret_cast<uint64_t>(base)) == 0) {
        replaced(qxOSVirtualFree, "qxOSVirtualFree")(base);
    }
}

extern "C" void qxOSMemoryStatus(uint64_t *total, uint64_t *available) {
    if (fakeSystem == nullptr) { return replaced(qxOSMemoryStatus, "qxOSMemoryStatus")(total, available); }
    *total = fakeSystem->total;
    *available = fakeSystem->available;
}

uint64_t clockMs = 5000;
extern "C" uint64_t qxOSGetTimeMs() { return clockMs; }

void *(*replaceAlloc)(uint32_t size) = nullptr;
void (*replaceFree)(void *block) = nullptr;

void failNth(uint32_t nth, bool andAllBehind) {
    failed = false;
    failBehind = andAllBehind;
    failAt = nth == 0 ? 0 : asked + nth;
}

bool anyFailed() { return failed; }
const uint64_t *blocksAside = nullptr;
int64_t blocksOut() { return out - static_cast<int64_t>(blocksAside != nullptr ? *blocksAside : 0); }
uint64_t requests() { return asked; }
uint32_t lastRequest() { return last; }

extern "C" void *QXAlloc(uint32_t size) {
    const uint64_t number = ++asked;
    last = size;
    const uint64_t fails = failAt;
    if (fails != 0 && (number == fails || (failBehind && number > fails))) {
        failed = true;
        return nullptr;
    }
    if (replaceAlloc != nullptr) { return replaceAlloc(size); }
    void *block = std::malloc(size);
    if (block != nullptr) {
        std::memset(block, 0xCD, size < 65536 ? size : 65536); // nobody may count on a content
        ++out;
    }
    return block;
}

extern "C" void QXFree(void *block) {
    if (replaceFree != nullptr) {
        replaceFree(block);
        return;
    }
    --out;
    std::free(block);
}

void onThreads(int count, const std::function<void(int)> &body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) { threads.emplace_back(body, i); }
    for (std::thread &thread : threads) { thread.join(); }
}
