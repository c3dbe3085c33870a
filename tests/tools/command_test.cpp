// The program as a user's test suite calls it, on traces that the library has written.
#include "trace_writer.h"

#include "trace/pool_map.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstdlib>
#include <map>

#include <sys/resource.h>
#include <sys/wait.h>

using namespace traceview;
using Json = nlohmann::json;

namespace {

struct Outcome {
    int code;
    std::string out; // and what goes to standard error, if `command` says so
};

Outcome call(const std::string &command) {
    std::FILE *const pipe = popen(command.c_str(), "r");
    Outcome outcome{-1, {}};
    std::array<char, 4096> part{};
    for (std::size_t count; (count = std::fread(part.data(), 1, part.size(), pipe)) != 0;) {
        outcome.out.append(part.data(), count);
    }
    const int status = pclose(pipe);
    outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

Outcome tool(const std::string &words) { return call(TRACE_TOOL " " + words); }
Json json(const std::string &words) { return Json::parse(tool(words + " --json").out); }

// The trace of a scenario.
struct Traced : TestFile {
    explicit Traced(const std::string &scenario) {
        const std::string on = scenario == "late" ? "0" : "1";
        EXPECT_EQ(call("QXUTIL_LOG=/dev/null QXBRENVOLE_TRACE=" + on + " QXBRENVOLE_TRACE_FILE=" + path +
                       " " SCENARIO " " + scenario)
                      .code,
                  0);
    }
};

bool holds(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

} // namespace

TEST(TraceCommand, Summary) {
    const struct {
        const char *scenario;
        int code;
        std::vector<const char *> told;
    } cases[] = {
        {"clean", 0, {"The trace ends with \"atexit\"", "No problems.", "Nothing is outstanding."}},
        {"leak",
         1,
         {"No problems.", "editor.c:50   writer.c:56 and 1 more", "mixer.c:60    mixer.c:60",
          "205 KiB      3  local"}},
        {"overwrite", 1, {"1 problem, by name", "dframe_free_overwrite", "mixer.c:14", "Nothing is outstanding."}},
        {"late", 0, {"2 events are of allocations made before the trace began", "Nothing is outstanding."}},
        {"heaps", 1, {"200 problems", "phys_destroy_outstanding", "(no call site)"}},
        {"hostile", 1, {"a \"quoted\", <b>bold</b></script><img src=x onerror=hack()>  [31m:1", ",,,,\"\"\":3"}},
    };
    for (const auto &[scenario, code, told] : cases) {
        SCOPED_TRACE(scenario);
        const Traced trace(scenario);
        const Outcome summary = tool("summary " + trace.path);
        EXPECT_EQ(summary.code, code);
        for (const char *text : told) { EXPECT_TRUE(holds(summary.out, text)) << text << "\n" << summary.out; }
        EXPECT_EQ(call("cat " + trace.path + " | " TRACE_TOOL " summary -").code, code);
        EXPECT_EQ(tool("leaks " + trace.path).code, json("summary " + trace.path)["outstanding"].empty() ? 0 : 1);
        EXPECT_EQ(tool("problems " + trace.path).code, holds(summary.out, "No problems.") ? 0 : 1);
    }
}

TEST(TraceCommand, FilesThatCannotBeReadAndThoseThatEndEarly) {
    const Traced clean("clean");
    const Traced leak("leak");
    const std::string all = leak.read();
    const TestFile cut(all.substr(0, all.size() / 2));
    const TestFile other("a,b\n1,2\n");
    const std::string away = clean.path + ".none";
    const struct {
        std::string words;
        int code;
        const char *told;
    } cases[] = {
        {"summary " + away, 2, "can't be opened: No such file"},
        {"summary /", 2, "is a directory"},
        {"problems " + other.path, 2,
         "isn't a trace: line 1 doesn't name a trace's columns, but begins with \"a,b\""},
        {"summary /dev/null", 2, "isn't a trace: it is empty"},
        {"summary " + cut.path, 1, " is cut off: the file ends in the middle of it"},
        {"problems " + cut.path, 1, "the trace has no end behind row "},
        {"life " + clean.path + " 4711", 1, "No allocation has the number 4711; the highest is 300"},
        {"life " + clean.path + " x", 2, "ALLOC_ID"},
        {"leaks", 2, "FILE is required"},
        {"", 2, "subcommand is required"},
        {"--help", 0, "zcat frames.csv.gz | brenvole-trace summary -"},
        {"report " + clean.path + " -o /nowhere/page.html", 2, "/nowhere/page.html can't be written: No such file"},
        {"summary " + leak.path + " >/dev/full", 2, "the output can't be written"},
    };
    for (const auto &[words, code, told] : cases) {
        const Outcome outcome = call("{ " TRACE_TOOL " " + words + "; } 2>&1");
        EXPECT_EQ(outcome.code, code) << words;
        EXPECT_TRUE(holds(outcome.out, told)) << words << "\n" << outcome.out;
    }
}

TEST(TraceCommand, AllocationsForPrograms) {
    const Traced trace("leak");
    const Json leaks = json("leaks " + trace.path);
    ASSERT_EQ(leaks["allocations"].size(), 8u);
    ASSERT_EQ(leaks["sites"].size(), 4u);
    EXPECT_EQ(leaks["sites"][0]["alloc_site"], (Json{{"msgarea", "editor.c"}, {"line", 50}}));
    EXPECT_EQ(leaks["sites"][0]["count"], 3);
    EXPECT_EQ(leaks["sites"][0]["other_last_sites"], 1);
    EXPECT_EQ(json("leaks " + trace.path + " --site mixer.c:60")["allocations"].size(), 2u);
    for (const Json &allocation : leaks["allocations"]) {
        const Json life = json("life " + trace.path + " " + allocation["alloc_id"].dump());
        EXPECT_EQ(life["outstanding"], true);
        EXPECT_EQ(life["events"].front()["event_id"], allocation["alloc_event"]);
        EXPECT_EQ(life["events"].front()["action"], "alloc");
        EXPECT_EQ(life["events"].back()["ref_count"], allocation["ref_count"]);
    }
    const Traced hostile("hostile");
    EXPECT_EQ(json("leaks " + hostile.path)["sites"][2]["alloc_site"]["msgarea"], ",,,,\"\"\"");
    const Traced overwrite("overwrite");
    const Json problem = json("problems " + overwrite.path)["problems"][0];
    EXPECT_EQ(problem["action"], "dframe_free_overwrite");
    EXPECT_EQ(problem["alloc_site"], (Json{{"msgarea", "mixer.c"}, {"line", 11}}));
    EXPECT_EQ(problem["requested"], 4000);
}

// The page's data is one JSON document that no text of a trace has ended, and its figures are the summary's.
TEST(TraceCommand, Report) {
    for (const char *scenario : {"clean", "leak", "heaps", "hostile", "random", "overwrite"}) {
        SCOPED_TRACE(scenario);
        const Traced trace(scenario);
        const TestFile page;
        EXPECT_EQ(tool("report " + trace.path + " -o " + page.path).code, 0);
        const std::string text = page.read();
        const std::string mark = "id=\"trace\">";
        const std::size_t begin = text.find(mark) + mark.size();
        const std::string data = text.substr(begin, text.find("</script", begin) - begin);
        EXPECT_EQ(data.find('<'), std::string::npos);
        const Json report = Json::parse(data);
        const Json summary = json("summary " + trace.path);
        EXPECT_EQ(report["totals"][3]["bytes"], summary["figures"]["all"]["bytes"]);
        EXPECT_EQ(report["events"], summary["about"]["events"]);
        EXPECT_EQ(report["sites"]["total"], summary["outstanding"].size());
        EXPECT_EQ(report["steps"]["bytes"][1]["last"].back(), summary["figures"]["phys"]["bytes"]);
        uint64_t stays = 0;
        for (const Json &pool : report["pools"]) {
            stays += pool["blocksTotal"].get<uint64_t>();
            EXPECT_EQ(pool["fill"].get<std::string>().size(),
                      (pool["columns"].get<std::size_t>() * pool["cells"].get<std::size_t>() + 2) / 3 * 4);
            EXPECT_EQ(pool["blocks"]["id"].size(),
                      std::min(pool["blocksTotal"].get<std::size_t>(), MapRegion::kBlocks));
        }
        EXPECT_EQ(stays, summary["figures"]["phys"]["made"]);
        EXPECT_EQ(report["pools"].size(), std::string(scenario) == "heaps" ? 2u : stays != 0 ? 1u : 0u);
    }
}

// At each list that the library has written, what is alive is what it lists; at each row the counts agree.
TEST(TraceCommand, WhatIsAliveIsWhatTheLibraryLists) {
    for (const char *scenario : {"random 1", "random 2", "leak", "heaps"}) {
        SCOPED_TRACE(scenario);
        const Traced trace(scenario);
        Reader reader;
        ASSERT_TRUE(readerOpen(reader, trace.path));
        Live live;
        std::map<uint64_t, Allocation> unlisted;
        uint64_t lists = 0;
        bool listing = false;
        for (Row row; readerNext(reader, row);) {
            if (listing && row.record != Record::active) {
                listing = false;
                ASSERT_TRUE(unlisted.empty()) << row.number;
            }
            if (row.record == Record::summary) {
                listing = true;
                ++lists;
                unlisted = std::map<uint64_t, Allocation>(live.allocations.begin(), live.allocations.end());
            }
            if (row.record == Record::active) {
                const auto place = unlisted.find(row.allocId);
                ASSERT_NE(place, unlisted.end()) << row.number;
                const Allocation &known = place->second;
                EXPECT_EQ(std::tie(known.kind, known.dframe, known.data, known.base, known.requested, known.actual),
                          std::tie(row.kind, row.dframe, row.data, row.base, row.requested, row.actual))
                    << row.number;
                EXPECT_TRUE(
                    holds(std::string(row.detail), "alloc_site=" + siteText(live.sites, known.allocSite) + " ") ||
                    row.msgarea.empty())
                    << row.detail;
                unlisted.erase(place);
            }
            const bool releases = row.record == Record::event && row.result == "release";
            liveFollow(live, row);
            ASSERT_EQ(live.allocations.size() + (releases ? 1 : 0), row.activeCount) << row.number;
        }
        EXPECT_TRUE(readerWhole(reader.findings));
        EXPECT_GE(lists, 1u);
    }
}

// A long trace is read in memory for what is alive: here 256 MB, whose lives all end.
TEST(TraceCommand, LongTraces) {
    const Traced trace("clean");
    const std::string all = trace.read();
    const std::string body = all.substr(all.find('\n'));
    const std::string command = TRACE_TOOL " report - -o " + trace.path + ".html >" + trace.path + ".out 2>&1";
    const auto began = std::chrono::steady_clock::now();
    std::FILE *const pipe = popen(command.c_str(), "w");
    std::fwrite(kHeader.data(), 1, kHeader.size(), pipe);
    uint64_t bytes = 0;
    for (; bytes < 256'000'000; bytes += body.size()) { std::fwrite(body.data(), 1, body.size(), pipe); }
    EXPECT_EQ(WEXITSTATUS(pclose(pipe)), 0);
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - began;
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    std::printf("%.0f MB/s, at most %ld KiB\n", static_cast<double>(bytes) / spent.count() / 1e6, children.ru_maxrss);
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LT(children.ru_maxrss, 64 * 1024);
#endif
    std::filesystem::remove(trace.path + ".html");
    std::filesystem::remove(trace.path + ".out");
}
