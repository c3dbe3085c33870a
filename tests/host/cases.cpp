// What a host does around the library, each case in a process of its own: cases PLUGIN MALLOC [CASE]
#include "../sanitized.h"
#include "util/qxutil.h"

#include <brenvole/dfheap.h>
#include <brenvole/dframe.h>

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <malloc.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kHostSawIt = 7; // exit code of the host's own fault handler
const char *pluginPath = nullptr;

PDFRAME make(uint32_t side, int64_t size = 10000) {
    PDFRAME frame = nullptr;
    return DFrameMem(DFRAME_ALLOC | side, size, 1, &frame) == 0 ? frame : nullptr;
}
bool drop(PDFRAME frame) { return DFrameMem(DFRAME_FREE, 0, 0, &frame) == 0; }

DFHEAP *card = nullptr; // a heap of the host's

// One round of everything that has a lock.
bool round(unsigned i) {
    const PDFRAME frame = make(i % 2 * DFRAME_FLAG_SYSHEAP, 1000 + i % 50 * 30000);
    PDFRAME copy = nullptr;
    bool good = frame != nullptr && DFrameMem(DFRAME_COPY, 0, reinterpret_cast<uintptr_t>(&frame), &copy) == 0;
    uint64_t size = 1 + i % 20000;
    const uintptr_t block = DFHEAP_Alloc(card, &size, 0, nullptr);
    good = good && block != 0 && DFHEAP_AddRef(card, block, nullptr) == 0 && DFHEAP_Free(card, block, nullptr) == 1 &&
           DFHEAP_Free(card, block, nullptr) == 0 && drop(frame) && drop(copy);
    uint32_t value = 0;
    qxCFGValueDword(-1, "Host", "Key", &value, 0);
    DFrameMem(99, 0, 0, nullptr); // logged
    if (i % 16 == 0) {
        qxSetLogSink(nullptr, nullptr);
        qxOSVirtualFree(qxOSVirtualAlloc(4096));
        DFHEAP_Destroy(DFHEAP_Create(0, 0x10000, 0x10000, 4096, 0));
        DFrameMem(DFRAME_DUMP, 0, 0, nullptr);
    }
    return good;
}

std::atomic<bool> stop = false;
std::vector<std::jthread> startWorkers(int count) {
    std::vector<std::jthread> workers;
    for (int t = 0; t < count; ++t) {
        workers.emplace_back([] {
            for (unsigned i = 0; !stop; ++i) { round(i); }
        });
    }
    return workers;
}

bool childOf(int (*body)()) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        std::exit(body());
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int forks() {
    auto workers = startWorkers(3);
    int bad = 0;
    for (int i = 0; i < (kSanitized ? 40 : 150) && bad == 0; ++i) {
        bad += !childOf([] { return 0; }); // the end alone
        bad += !childOf([] {
            for (unsigned n = 0; n < 40; ++n) {
                if (!round(n)) { return 1; }
            }
            if (!kSanitized) {
                std::thread([] { round(1); }).join();
            } // TSan allows no threads there
            return childOf([] { return round(3) ? 0 : 1; }) ? 0 : 1;
        });
    }
    stop = true;
    workers.clear();
    return bad;
}

// Two threads fork, each with the lock of a heap of its own.
int forksUnderLocks() {
    DFHEAP *const other = DFHEAP_Create(0, 0x80000000, 1 << 24, 4096, 8192);
    std::atomic<int> ready = 0, good = 0;
    std::vector<std::thread> threads;
    for (DFHEAP *const heap : {card, other}) {
        threads.emplace_back([&, heap] {
            DFHEAP_Lock(heap, 1);
            for (++ready; ready < 2;) {}
            good += drop(make(0)) && childOf([] { return round(1) ? 0 : 1; });
            DFHEAP_Lock(heap, 0);
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
    return good == 2 ? 0 : 1;
}

int exitWhileBusy() {
    int bad = 0;
    for (int i = 0; i < 12; ++i) { // what goes too early isn't met each time
        bad += !childOf([] {
            DFrameMem(DFRAME_RESET, 60000000, 0, nullptr);
            const PDFRAME leak = make(0); // to be reported, and written to until the very end
            std::thread([leak] {
                for (;;) { std::memset(leak->lpData, 1, leak->dwBufferLength); }
            }).detach();
            for (std::jthread &worker : startWorkers(2)) { worker.detach(); }
            usleep(30000);
            return 0; // by exit()
        });
    }
    return bad;
}

std::atomic<int> stage = 0;
void callFromConstructor() {
    stage = 1;
    while (stage != 2) {}
    uint64_t size = 4096;
    DFHEAP_Free(card, DFHEAP_Alloc(card, &size, 0, nullptr), nullptr); // waits for the lock
}

// The first release of the process's comes under a heap's lock, while the loader waits for that lock.
int releaseWhileLoading() {
    uint64_t size = 4096;
    const uintptr_t block = DFHEAP_Alloc(card, &size, 0, nullptr);
    char call[32];
    std::snprintf(call, sizeof call, "%lx", reinterpret_cast<unsigned long>(&callFromConstructor));
    setenv("HOST_CALL", call, 1);
    std::thread loader([] { dlopen(pluginPath, RTLD_NOW); });
    while (stage != 1) {}
    DFHEAP_Lock(card, 1);
    stage = 2;
    DFHEAP_Free(card, block, nullptr);
    DFHEAP_Lock(card, 0);
    loader.join();
    return 0;
}

int unload() {
    const auto inUse = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
    const auto handler = [] {
        struct sigaction now {};
        sigaction(SIGSEGV, nullptr, &now);
        return now.sa_handler;
    };
    const auto host = handler();
    mallopt(M_ARENA_MAX, 1); // where the blocks of all threads are counted alike
    std::size_t before = 0;
    for (int i = 0; i < 50; ++i) {
        void *const plugin = dlopen(pluginPath, RTLD_NOW | RTLD_LOCAL);
        const auto work = reinterpret_cast<int (*)(int)>(dlsym(plugin, "work"));
        std::atomic<int> bad = work == nullptr;
        std::vector<std::jthread> threads(4); // their first commands at once make one lock
        for (std::jthread &thread : threads) {
            thread = std::jthread([&] { bad += work(0); });
        }
        threads.clear();
        if (bad != 0 || work(1) != 0 || handler() == host || dlclose(plugin) != 0 || handler() != host) { return 1; }
        if (dlopen(pluginPath, RTLD_NOW | RTLD_NOLOAD) != nullptr) { return 3; }
        if (i == 34) {
            before = inUse();
        } // the loader, and what the C library keeps for the thread, have all they need
    }
    return kSanitized || inUse() < before + 2048 ? 0 : 2;
}

// DFRAME_RESET doesn't come to its end: its flags don't outlive it, and a frame that needs the pool gets one.
int leaveReset(QXLogSink sink) {
    std::thread([sink] {
        qxSetLogSink(sink, nullptr);
        try {
            DFrameMem(DFRAME_RESET, 1000000, 0, nullptr);
        } catch (int) {}
    }).join();
    qxSetLogSink(nullptr, nullptr);
    char own[100] = "";
    PDFRAME custom = make(0), made = nullptr;
    custom->dwFlags |= DFRAME_FLAG_CUSTOM, custom->lpData = reinterpret_cast<uint8_t *>(own);
    custom->dwBufferLength = sizeof own;
    return DFrameMem(DFRAME_DUP_FREE, 0, reinterpret_cast<uintptr_t>(&custom), &made) != 0 ||
           DFrameMem(DFRAME_ISBRENVOLE, 0, 0, &made) != 1 || !drop(made) ||
           DFrameMem(DFRAME_RESET, 700000000, 0, nullptr) != 0;
}
int throwInReset() {
    DFrameMem(DFRAME_RESET, 900000, 0, nullptr);
    return leaveReset([](uint32_t, const char *, void *) { throw 1; });
}
int cancelInReset() {
    return leaveReset([](uint32_t, const char *, void *) {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    });
}

sigjmp_buf recovery;
void installHandler(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGSEGV, &action, nullptr);
}

int faultInMalloc() {
    installHandler([](int) { _exit(kHostSawIt); });
    uint64_t size = 4096;
    DFHEAP_Alloc(card, &size, 0, nullptr); // under a guard
    *static_cast<volatile int *>(dlsym(RTLD_DEFAULT, "mallocFaults")) = 1;
    DFHEAP_Alloc(card, &size, 0, nullptr);
    return 0;
}

// A handler of the host's that interrupts guarded work faults, and recovers by itself.
int seen = 0;
int faultInHandler(int flags) {
    static char stack[1 << 16];
    stack_t alternate{stack, 0, sizeof stack};
    sigaltstack(&alternate, nullptr);
    installHandler([](int) { ++seen, siglongjmp(recovery, 1); });
    struct sigaction action {};
    action.sa_flags = flags;
    action.sa_handler = [](int) {
        static volatile int *volatile nowhere = reinterpret_cast<int *>(4096);
        if (sigsetjmp(recovery, 1) == 0) { *nowhere = 0; }
    };
    sigaction(SIGUSR1, &action, nullptr);
    qxSetLogSink([](uint32_t, const char *, void *) { raise(SIGUSR1); }, nullptr);
    for (int i = 1; i <= 3; ++i) {
        PDFRAME big = nullptr; // too large a record: logged from inside a guarded section
        DFrameMem(DFRAME_ALLOC, 1000, 0xFFFFFFFF, &big);
        if (seen < i) { return 1; }
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGUSR1) || sigismember(&mask, SIGSEGV) ? 2 : 0;
}

// On the shelves of two processors, or of one.
int releaseTwice() {
    void *const block = QXAlloc(8484);
    const auto release = [block](int processor) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(processor, &set);
        sched_setaffinity(0, sizeof set, &set);
        QXFree(block);
    };
    std::thread(release, 0).join();
    std::thread(release, 1).join();
    const void *const one = QXAlloc(8484), *const other = QXAlloc(8484);
    return one == other ? 1 : 0;
}

// Threads release what others have made, in all sizes, and nobody else has written into a block.
int blocksBelongToOne() {
    static std::atomic<uint8_t *> shared[8];
    std::atomic<int> bad = 0;
    const auto check = [&](uint8_t *block) { // its size, and its first and last byte
        uint32_t size = 0;
        std::memcpy(&size, block + 1, sizeof size);
        bad += block[0] != block[size - 1];
        QXFree(block);
    };
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (uint32_t i = 0, random = t + 1; i < 100000; ++i) {
                random = random * 1664525 + 1013904223;
                const uint32_t size = 6 + (random >> 12) % (1u << (random >> 27) % 19);
                auto *const block = static_cast<uint8_t *>(QXAlloc(size));
                std::memcpy(block + 1, &size, sizeof size);
                block[0] = block[size - 1] = static_cast<uint8_t>(i | 1);
                if (uint8_t *const other = shared[(random >> 8) % 8].exchange(block)) { check(other); }
            }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
    for (auto &block : shared) { check(block); }
    return bad != 0 ? 1 : 0;
}

// Written beyond the end of each kind of block, and into a cached one after its release.
int guards() {
    DFrameMem(DFRAME_RESET, 9000000, 0, nullptr);
    for (const uint32_t side : {0u, DFRAME_FLAG_SYSHEAP}) {
        PDFRAME frame = nullptr, again = nullptr;
        DFrameMemTrace(DFRAME_ALLOC | side, 700000, 1, &frame, "maker.c", 11);
        uint8_t *const data = frame->lpData;
        data[frame->dwBufferLength + 5] = 1;
        DFrameMemTrace(DFRAME_FREE, 0, 0, &frame, "user.c", 22);
        if (side != 0) { data[8] = 0; }
        DFrameMemTrace(DFRAME_ALLOC | side, 700000, 1, &again, "next.c", 33);
        if (again->lpData != data || !drop(again)) { return 1; }
    }
    return 0;
}

struct Case {
    const char *name;
    int (*body)();
    int expected;                   // exit code, or minus a signal
    std::vector<std::string> texts; // that standard error has
    bool sanitized = true;          // runs under sanitizers as well
};
const Case cases[] = {
    {"forks", forks, 0, {}, !kAddressSanitized},
    {"forks under locks", forksUnderLocks, 0, {}, !kSanitized},
    {"exit while busy", exitWhileBusy, 0, {"Memory found not free'ed size 16384", "Net DFrames Allocated"}},
    {"release while loading", releaseWhileLoading, 0, {}},
    {"unload", unload, 0, {}},
    {"throw in reset", throwInReset, 0, {}},
    {"cancel in reset", cancelInReset, 0, {}},
    {"fault in malloc", faultInMalloc, kHostSawIt, {}, false},
    {"fault in handler", [] { return faultInHandler(0); }, 0, {}, !kThreadSanitized},
    {"fault in handler on a stack of its own", [] { return faultInHandler(SA_ONSTACK); }, 0, {}, !kThreadSanitized},
    {"blocks belong to one", blocksBelongToOne, 0, {}},
    {"release twice", releaseTwice, -SIGABRT, {"released twice"}, false},
    {"guards",
     guards,
     0,
     {"of 983040 bytes, bytes 5 to 5 after it", "of 979999 bytes, bytes 5 to 5 after it",
      "allocated at maker.c:11, released at user.c:22", "after its release", "found at next.c:33"},
     false},
};

std::string run(const Case &one, const std::string &self, const std::string &plugin, const std::string &preload) {
    const bool guarded = std::strcmp(one.name, "guards") == 0, loaded = std::strstr(one.name, "malloc") != nullptr;
    const std::string environment =
        (guarded ? "QXBRENVOLE_GUARD=1 " : "") + (loaded ? "LD_PRELOAD='" + preload + "'" : "");
    const std::string words = "'" + self + "' '" + plugin + "' '" + preload + "' '" + one.name + "'";
    std::FILE *const pipe = popen(("exec env -u QXUTIL_LOG " + environment + " " + words + " 2>&1").c_str(), "r");
    std::string text;
    char piece[4096];
    while (const std::size_t count = std::fread(piece, 1, sizeof piece, pipe)) { text.append(piece, count); }
    const int status = pclose(pipe);
    const int result = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    std::string wrong = result != one.expected ? "result " + std::to_string(result) : "";
    for (const std::string &part : one.texts) {
        if (text.find(part) == std::string::npos) { wrong += ", no \"" + part + "\""; }
    }
    return wrong.empty() ? ""
                         : wrong + "; the end of its messages:\n" +
                               text.substr(text.size() - std::min<std::size_t>(text.size(), 1500));
}

} // namespace

int main(int count, char **arguments) {
    pluginPath = arguments[1];
    int bad = 0;
    for (const Case &one : cases) {
        if (count == 4 && std::strcmp(one.name, arguments[3]) == 0) {
            alarm(60);
            card = DFHEAP_Create(0, 0x40000000, 1 << 24, 4096, 8192);
            return one.body();
        }
        if (count != 4 && (one.sanitized || !kSanitized)) {
            const std::string wrong = run(one, arguments[0], arguments[1], arguments[2]);
            std::printf("%s: %s\n", one.name, wrong.empty() ? "ok" : wrong.c_str());
            bad += !wrong.empty();
        }
    }
    return bad;
}
