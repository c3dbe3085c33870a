// The trace's file and this platform: links, rights, forks, cancelled threads, unloading.
#include "trace_fixture.h"

#include <algorithm>
#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace brenvole;

namespace {

// A file of our own naming follows no link that somebody has planted, and nobody else reads it; one that the user
// named is opened as it is.
TEST_F(TraceFile, FilesByNobodyAndByTheUser) {
    const Environment none("QXBRENVOLE_TRACE_FILE", nullptr);
    const std::string victim = directory.write("victim", "precious");
    inProcess([&] {
        const std::string name =
            directory.path + "brenvole_dframe_trace_" + std::to_string(getpid()) + "_8217344.csv";
        if (symlink(victim.c_str(), name.c_str()) != 0) { _exit(1); }
        struct stat about {};
        _exit(TraceIsEnabled() != 1 || lstat(name.c_str(), &about) != 0 || about.st_mode != (S_IFREG | 0600));
    });
    EXPECT_EQ(contentOf(victim), "precious");
    const Environment ini("QXUTIL_CONFIG", directory.write("s.ini", "[Brenvole]\nDFrameTraceFile=" + victim).c_str());
    inProcess([] { TraceIsEnabled(); });
    EXPECT_EQ(contentOf(victim).substr(0, 7), "record,");
}

// Whatever call sites, sinks, cancelled threads, forked children and late releases come along, the program goes on,
// and the file stays whole.
TEST_F(TraceFile, NothingOfItReachesTheProgram) {
    setenv("QXBRENVOLE_TRACE_FILE", "/nonexistent/file", 1);
    inProcess([this] {
        qxSetLogSink([](uint32_t, const char *, void *) { DFrameMem(DFRAME_TOTAL, 0, 0, nullptr); }, nullptr);
        static PDFRAME late = nullptr;
        std::atexit([] { DFrameMem(DFRAME_FREE, 0, 0, &late); });
        errno = 7;
        DFrameMem(DFRAME_ALLOC | DFRAME_FLAG_SYSHEAP, 100, 1, &late); // the first try to open a file
        setenv("QXBRENVOLE_TRACE_FILE", file.c_str(), 1);
        while (TraceIsEnabled() == 0) {} // the next one
        const int error = errno;
        PDFRAME garbage = reinterpret_cast<PDFRAME>(16);
        const bool refused = DFrameMem(DFRAME_ALLOC, 0, 1, &garbage) == DFMEM_E_INVALIDARG;
        DFrameMemTrace(DFRAME_SMALLEST, 0, 0, nullptr, reinterpret_cast<const char *>(16), 7777);
        pthread_t cancelled;
        const auto cancelledInside = [](void *) -> void * {
            pthread_cancel(pthread_self());
            DFrameMem(DFRAME_DUMP, 0, 0, nullptr);
            pthread_testcancel();
            return nullptr;
        };
        pthread_create(&cancelled, nullptr, cancelledInside, nullptr);
        pthread_join(cancelled, nullptr);
        DFrameMem(DFRAME_DUMP, 0, 0, nullptr);
        const pid_t child = fork();
        if (child == 0) { std::exit(0); }
        waitpid(child, nullptr, 0);
        if (!refused || error != 7) { _exit(1); }
    });
    const std::string content = contentOf(file);
    const auto rows = std::to_string(std::count(content.begin(), content.end(), '\n'));
    const std::string end =
        "\"meta\"," + rows + ",8217344,\"trace_close\",\"ok\",\"session\",0,\"brenvole\",0,,,,0,0,0,0,\"atexit\"";
    EXPECT_EQ(content.substr(content.rfind('\n') + 1), end);
    EXPECT_NE(content.find("\"DFRAME_SMALLEST\",\"call\",\"dframe\",0,\"\",7777,"), std::string::npos);
    EXPECT_EQ(content.find("\"trace_close\""), content.rfind("\"trace_close\""));
}

// What the pool finds when a library is unloaded stands in the file.
TEST_F(TraceFile, AnUnloadedLibrary) {
    inProcess([] {
        void *const library = dlopen(BRENVOLE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        const auto run = reinterpret_cast<decltype(&DFrameMem)>(dlsym(library, "DFrameMem"));
        PDFRAME lost = nullptr;
        _exit(run(DFRAME_RESET, 1 << 20, 0, nullptr) != 0 || run(DFRAME_ALLOC, 100, 1, &lost) != 0 ||
              dlclose(library) != 0);
    });
    const std::string content = contentOf(file);
    EXPECT_NE(content.find("\"phys_destroy_outstanding\",\"problem\",\"phys\""), std::string::npos);
    EXPECT_TRUE(content.ends_with(",\"DllMainDetach\""));
}

} // namespace
