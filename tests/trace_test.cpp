// The trace: when it runs, where its file lies, and what stands in it, byte for byte. It ends for good with its
// process, so each case has a process of its own.
#include "harness.h"
#include "local/counters.h"
#include "trace/trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace brenvole;

namespace {

std::string contentOf(const std::string &file) {
    std::ostringstream content;
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
}

const void *at(uintptr_t address) { return reinterpret_cast<const void *>(address); }

struct TraceFile : testing::Test {
    TemporaryDirectory directory;
    std::string file = directory.path + "trace.csv";
    Environment first{"QXBRENVOLE_TRACE", "1"};
    Environment second{"BRENVOLE_DFRAME_TRACE", nullptr};
    Environment place{"QXBRENVOLE_TRACE_FILE", file.c_str()};
    Environment store{"QXUTIL_CONFIG", "/nonexistent"};
    Environment config{"QXUTIL_CONFIG_DIR", directory.path.c_str()};

    // Runs it in a process that then ends as programs do.
    static void inProcess(const std::function<void()> &body) {
        const pid_t child = fork();
        if (child == 0) {
            static LogCapture log;
            clockMs = (uint64_t{1} << 32) + 8217344; // of which the low half is told
            body();
            std::exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
};

TEST_F(TraceFile, EveryByteOfAFile) {
    inProcess([] {
        TraceAlloc("dframe", at(0x1004), at(0x1004), at(0x1000), 8480, 8484, 1, "a\"b\tc", 7, "allocPDFRAME");
        TraceAlloc("phys", at(0x1004), at(0x20000), nullptr, 5000, 8192, 1, nullptr, 0, "x");
        TraceTouch("phys_addref", "phys", nullptr, at(0x21FFF), 2, "t", 1, "mid");
        TraceTouch("phys_addref", "phys", nullptr, at(0x22000), 2, "t", 1, "past");
        TraceCall(0x8000000B, -1, nullptr, at(0x1004), nullptr, "c", 2);
        TraceCall(0x107, 5, at(0xAB), nullptr, nullptr, nullptr, 0);
        TraceSwapOwner("phys_swapref_owner", "phys", nullptr, at(0x20000), 2, "s", 3, "first");
        TraceSwapOwner("phys_swapref_owner", "phys", at(0x1004), nullptr, 2, "s", 3, "no data");
        TraceRelease("phys_free", "phys", nullptr, at(0x20001), 1, "r", 4, "deref");
        TraceProblem("phys_free_missing", nullptr, at(0x20000), 1, 2, 0, std::string(100, 'm').c_str(), 5, "p");
        TraceRelease("phys_free", "local", nullptr, at(0x20000), 0, "r", 4, "wrong kind");
        TraceRelease("phys_free", "phys", nullptr, at(0x20000), -1, "r", 6, "release");
    });
    const std::string counters = " dframes=" + std::to_string(dframes) +
                                 " dframe_bytes=" + std::to_string(dframe_bytes) +
                                 " phys_allocs=" + std::to_string(phys_allocs) +
                                 " local_allocs=" + std::to_string(local_allocs) + " peak_active=2\"";
    const std::string m95(95, 'm'), m100(100, 'm');
    const std::string head = "\"alloc_site=a\"\"b c:7 last_site=a\"\"b c:7 alloc_event=2 last_event=2\"";
    const std::string expected =
        R"(record,event_id,time_ms,action,result,kind,alloc_id,msgarea,line,dframe,data,base,requested,actual,ref_count,active_count,detail
"meta",1,8217344,"trace_open","ok","session",0,"brenvole",0,,,,0,0,0,0,")" +
        file + R"("
"event",2,8217344,"alloc","ok","dframe",1,"a""b c",7,0000000000001004,0000000000001004,0000000000001000,8480,8484,1,1,"allocPDFRAME"
"event",3,8217344,"alloc","ok","phys",2,"",0,0000000000001004,0000000000020000,0000000000020000,5000,8192,1,2,"x"
"event",4,8217344,"phys_addref","ok","phys",2,"t",1,,0000000000021FFF,0000000000020000,5000,8192,2,2,"mid"
"event",5,8217344,"phys_addref","missing","phys",0,"t",1,,0000000000022000,,0,0,2,2,"past"
"event",6,8217344,"DFRAME_FREE","call","local",2,"c",2,0000000000001004,,0000000000020000,18446744073709551615,0,2,2,"flags=0x8000000B param1=-1 param2=0x0000000000000000 sysheap"
"event",7,8217344,"DFRAME_UNKNOWN","call","dframe",0,"",0,,,,5,0,0,2,"flags=0x00000107 param1=5 param2=0x00000000000000AB"
"event",8,8217344,"phys_swapref_owner","ok","phys",2,"s",3,,0000000000020000,0000000000020000,5000,8192,2,2,"first"
"event",9,8217344,"phys_swapref_owner","missing","phys",0,"s",3,0000000000001004,,,0,0,2,2,"no data"
"event",10,8217344,"phys_free","deref","phys",2,"r",4,,0000000000020001,0000000000020000,5000,8192,1,2,"deref"
"problem",11,8217344,"phys_free_missing","problem","phys",2,")" +
        m100 + R"(",5,,0000000000020000,0000000000020000,1,2,0,2,"p"
"summary",12,8217344,"snapshot","ok","session",0,"brenvole",0,,,,0,0,0,2,"reason=phys_free_missing)" +
        counters + R"(
"active",13,8217344,"outstanding","active","phys",2,"",0,,0000000000020000,0000000000020000,5000,8192,0,2,"alloc_site=:0 last_site=)" +
        m95 + R"(:5 alloc_event=3 last_event=11"
"active",14,8217344,"outstanding","active","dframe",1,"a""b c",7,0000000000001004,0000000000001004,0000000000001000,8480,8484,1,2,)" +
        head + R"(
"event",15,8217344,"phys_free","missing","local",0,"r",4,,0000000000020000,,0,0,0,2,"wrong kind"
"event",16,8217344,"phys_free","release","phys",2,"r",6,,0000000000020000,0000000000020000,5000,8192,-1,2,"release"
"summary",17,8217344,"snapshot","ok","session",0,"brenvole",0,,,,0,0,0,1,"reason=atexit)" +
        counters + R"(
"active",18,8217344,"outstanding","active","dframe",1,"a""b c",7,0000000000001004,0000000000001004,0000000000001000,8480,8484,1,1,)" +
        head + R"(
"meta",19,8217344,"trace_close","ok","session",0,"brenvole",0,,,,0,0,0,1,"atexit")";
    EXPECT_EQ(contentOf(file), expected);
}

TEST_F(TraceFile, SourcesInTheirOrder) {
    const struct {
        const char *first, *second, *content;
        int32_t on;
    } cases[] = {{"Off", nullptr, "", 0},
                 {"yellow", nullptr, "", 1},
                 {"tRuE", nullptr, "", 1},
                 {"no", "ON", "", 1},
                 {"", "0", "[Brenvole\\DFrameTrace]\nEnable=1\n", 1},
                 {nullptr, nullptr, "[Brenvole\\DFrameTrace]\nEnable=0\n[Brenvole]\nDFrameTrace=0x2\n", 1},
                 {nullptr, nullptr, "[qxOSCfg\\Brenvole]\nDFrameTrace=1\n", 1},
                 {nullptr, nullptr, "[qxOSCfg\\Brenvole]\nDFrameTrace=0\n", 0}};
    for (const auto &c : cases) {
        const Environment one("QXBRENVOLE_TRACE", c.first), two("BRENVOLE_DFRAME_TRACE", c.second);
        const Environment ini("QXUTIL_CONFIG", directory.write("store.ini", c.content).c_str());
        inProcess([&] { _exit(TraceIsEnabled() == c.on ? 0 : 1); });
        EXPECT_EQ(unlink(file.c_str()) == 0, c.on == 1);
    }
}

// A source that turns on is seen at the 4096th call; one that turns off, not at all; after the end, none is.
TEST_F(TraceFile, LateStartAndEnd) {
    unsetenv("QXBRENVOLE_TRACE");
    inProcess([&] {
        int bad = TraceIsEnabled();
        setenv("QXBRENVOLE_TRACE", "1", 1);
        for (int i = 1; i < 4096; ++i) { bad += TraceIsEnabled(); }
        for (int i = 1; i <= 10; ++i) {
            TraceProblem("off", nullptr, nullptr, 0, 0, 0, nullptr, 0, nullptr);
        } // starts it
        unsetenv("QXBRENVOLE_TRACE");
        bad += 1 - TraceIsEnabled();
        TraceClose(nullptr);
        setenv("QXBRENVOLE_TRACE", "1", 1);
        for (int i = 0; i < 9000; ++i) { bad += TraceIsEnabled(); }
        if (bad != 0) { _exit(1); }
    });
    const std::string content = contentOf(file);
    const auto count = [&](const std::string &text) {
        int found = 0;
        for (std::size_t from = 0; (from = content.find(text, from)) != std::string::npos; ++from) { ++found; }
        return found;
    };
    EXPECT_EQ(count("\n\"problem\""), 10);
    EXPECT_EQ(count("\n\"summary\""), 9); // of the first eight, and of the end
    EXPECT_EQ(content.substr(content.rfind(',')), ",\"\"");
}

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
        _exit(TraceIsEnabled() == 1 && lstat(name.c_str(), &about) == 0 && S_ISREG(about.st_mode) &&
                      (about.st_mode & 0777) == 0600
                  ? 0
                  : 1);
    });
    EXPECT_EQ(contentOf(victim), "precious");
    const Environment ini("QXUTIL_CONFIG", directory.write("s.ini", "[Brenvole]\nDFrameTraceFile=" + victim).c_str());
    inProcess([] { TraceIsEnabled(); });
    EXPECT_EQ(contentOf(victim).substr(0, 7), "record,");
    const Environment nowhere("QXBRENVOLE_TRACE_FILE", "/nonexistent/file");
    inProcess([] {
        LogCapture log;
        const bool off = TraceIsEnabled() == 0;
        _exit(off && log.take() == Texts{"Brenvole DFrame trace enabled but unable to open '/nonexistent/file'"} ? 0
                                                                                                                 : 1);
    });
}

} // namespace
