#include "harness.h"

#include "util/qxutil.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

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
    if (replaceAlloc != nullptr) { return replaceAlloc(size); }
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

void onThreads(int count, const std::function<void(int)> &body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) { threads.emplace_back(body, i); }
    for (std::thread &thread : threads) { thread.join(); }
}
