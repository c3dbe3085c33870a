// The program as a user's test suite calls it, on traces that the library has written.
#include "trace_writer.h"

#include "trace/pool_map.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstdlib>
#include <map>
#include <set>

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

// What a page draws, which no text of a trace has ended.
Json dataOf(const std::string &page) {
    const std::string mark = "id=\"trace\">";
    const std::size_t begin = page.find(mark) + mark.size();
    const std::string data = page.substr(begin, page.find("</script", begin) - begin);
    EXPECT_EQ(data.find('<'), std::string::npos);
    return Json::parse(data);
}

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
        {"reuse", 1, {"phys       2         1", "1 problem"}},
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
    const std::string whole = clean.read();
    const TestFile open(whole.substr(0, whole.rfind('\n')));
    const TestFile unkept(
        std::string(whole).replace(whole.rfind("\"alloc\",\"ok\""), 12, "\"alloc\",\"trace_alloc_failed\""));
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
        {"summary " + open.path, 1, "Nothing is outstanding."},
        {"leaks " + open.path, 1, "Nothing is outstanding."},
        {"leaks " + leak.path + " --site none", 0,
         "Nothing is outstanding of call sites with \"none\"; of others, 8"},
        {"leaks " + leak.path + " --site mixer.c:6", 0, "of others, 8"},
        {"summary " + unkept.path, 1, "1 allocation was made that the trace had no memory to follow"},
        {"life " + clean.path + " 0", 2, "\"0\" is no allocation's number"},
        {"life " + clean.path + " 99999999999999999999", 2, "is no allocation's number"},
        {"nonsense " + clean.path, 2, "no such command: nonsense"},
        {"report " + clean.path + " -o " + clean.path, 2, "can't be written: it is the trace"},
        {"report " + clean.path + " -o /", 2, "can't be written: it is a directory"},
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
    const Json points = dataOf(tool("report " + overwrite.path + " -o -").out)["problems"]["points"];
    EXPECT_EQ((Json{points[0]["event"], points[0]["site"], points[0]["detail"], points[0]["id"]}),
              (Json{6, "mixer.c:14", "dwBytesUsed exceeds dwBufferLength", 2}));
}

// The figures of a page are the summary's.
TEST(TraceCommand, Report) {
    for (const char *scenario : {"clean", "leak", "heaps", "hostile", "random", "overwrite"}) {
        SCOPED_TRACE(scenario);
        const Traced trace(scenario);
        const TestFile page("old"), link;
        std::filesystem::create_symlink(page.path, link.path);
        EXPECT_EQ(tool("report " + trace.path + " -o " + link.path).code, 0);
        EXPECT_TRUE(std::filesystem::is_symlink(link.path));
        const Json report = dataOf(page.read());
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

// Five rows, counted by hand: shares of cells of 4096 bytes, a row a column; the first moment of a peak; a block's
// box.
TEST(TraceCommand, MapOfAFewRows) {
    const struct {
        const char *record, *action, *result;
        uint64_t id, base, bytes;
    } rows[] = {{"meta", "trace_open", "ok", 0, 0, 0},      {"event", "alloc", "ok", 1, 0x10800, 2048},
                {"event", "alloc", "ok", 2, 0x13000, 4096}, {"event", "phys_free", "release", 1, 0x10800, 2048},
                {"event", "alloc", "ok", 3, 0x11000, 2048}, {"meta", "trace_close", "ok", 0, 0, 0}};
    Written written;
    Row &row = written.row;
    for (const auto &[record, action, result, id, base, bytes] : rows) {
        row.kind = id != 0 ? Kind::phys : Kind::session;
        row.allocId = id, row.base = row.data = base, row.actual = bytes;
        row.msgarea = "a.c", row.line = static_cast<uint32_t>(row.eventId) + 1;
        written.add(record, action, result);
    }
    const TestFile trace(written.text);
    const Json report = dataOf(tool("report " + trace.path + " -o -").out);
    const Json &pool = report["pools"][0];
    EXPECT_EQ(pool["low"], "0000000000010800");
    EXPECT_EQ(pool["high"], "0000000000014000");
    EXPECT_EQ(pool["cellBase"], "0000000000010000");
    EXPECT_EQ(pool["columnTime"], (Json{0, 10, 20, 30, 40, 50}));
    // By columns of four cells: none, none, half of the first, that and the last, the last, the last and half of the
    // second.
    EXPECT_EQ(pool["fill"], "AAAAAAAAAACAAAAAgAAA/wAAAP8AgAD/");
    EXPECT_EQ(pool["fillTime"], pool["fill"]);
    const Json blocks = pool["blocks"];
    const Json &ids = blocks["id"], &ends = blocks["to"];
    const auto at = static_cast<std::size_t>(std::find(ids.begin(), ids.end(), 1) - ids.begin());
    EXPECT_EQ((Json{blocks["from"][at], ends[at], blocks["fromTime"][at], blocks["toTime"][at], blocks["offset"][at],
                    blocks["bytes"][at]}),
              (Json{2, 4, 10, 30, 0, 2048}));
    EXPECT_EQ(report["callSites"][blocks["site"][at].get<std::size_t>()], "a.c:2");
    EXPECT_EQ(std::count(ends.begin(), ends.end(), 0), 2);
    EXPECT_EQ(report["totals"][1]["peakCountTime"], 20);
    EXPECT_EQ(report["totals"][1]["peakCount"], 2);
}

// Rows that begin and end lives are lost, and all that the program tells is what the next list says.
TEST(TraceCommand, LostRowsAreSettledByTheNextList) {
    const Traced trace("random");
    std::istringstream all(trace.read());
    std::string holed, releasedId;
    uint64_t lines = 0;
    for (std::string line; std::getline(all, line); ++lines) {
        const bool begins = lines > 2000 && lines < 3000 && holds(line, "\"alloc\",\"ok\"") && lines % 3 == 0;
        const bool ends = lines > 5000 && lines < 5500 && holds(line, "\"release\"");
        if (!begins && !ends) { holed += (holed.empty() ? "" : "\n") + line; }
        if (ends) {
            std::istringstream fields(line);
            for (int i = 0; i < 7; ++i) { std::getline(fields, releasedId, ','); }
        }
    }
    const TestFile damaged(holed);
    const Json whole = json("leaks " + trace.path);
    const Json left = json("leaks " + damaged.path);
    const auto ids = [](const Json &leaks) {
        std::set<uint64_t> found;
        for (const Json &allocation : leaks["allocations"]) { found.insert(allocation["alloc_id"].get<uint64_t>()); }
        return found;
    };
    EXPECT_EQ(ids(left), ids(whole));
    EXPECT_EQ(left["sites"].size(), whole["sites"].size());
    EXPECT_EQ(left["about"]["whole"], false);
    const Json life = json("life " + damaged.path + " " + releasedId);
    EXPECT_EQ(life["outstanding"], false);
    EXPECT_TRUE(holds(tool("life " + damaged.path + " " + releasedId + " 2>&1").out,
                      "It was released by a row that is lost."));
    const Json report = dataOf(tool("report " + damaged.path + " -o - 2>&1").out);
    EXPECT_EQ(report["steps"]["bytes"][1]["last"].back(), report["totals"][1]["bytes"]);
    uint64_t outstanding = 0;
    for (const Json &pool : report["pools"]) {
        outstanding += static_cast<uint64_t>(std::count(pool["blocks"]["to"].begin(), pool["blocks"]["to"].end(), 0));
    }
    EXPECT_EQ(report["totals"][1]["count"], outstanding);
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
        for (Row row; readerNext(reader, row);) {
            if (row.record == Record::summary) {
                ++lists;
                unlisted = std::map<uint64_t, Allocation>(live.allocations.begin(), live.allocations.end());
            } else if (row.record == Record::active) {
                const auto place = unlisted.find(row.allocId);
                ASSERT_NE(place, unlisted.end()) << row.number;
                const Allocation &known = place->second;
                EXPECT_EQ(std::tie(known.kind, known.dframe, known.data, known.base, known.requested, known.actual),
                          std::tie(row.kind, row.dframe, row.data, row.base, row.requested, row.actual))
                    << row.number;
                EXPECT_TRUE(row.msgarea.empty() || holds(std::string(row.detail),
                                                         "alloc_site=" + siteText(live.sites, known.allocSite) + " "))
                    << row.detail;
                unlisted.erase(place);
            } else {
                ASSERT_TRUE(unlisted.empty()) << row.number;
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
    std::FILE *const pipe = popen(command.c_str(), "w");
    std::fwrite(kHeader.data(), 1, kHeader.size(), pipe);
    for (uint64_t bytes = 0; bytes < 256'000'000; bytes += body.size()) {
        std::fwrite(body.data(), 1, body.size(), pipe);
    }
    EXPECT_EQ(WEXITSTATUS(pclose(pipe)), 0);
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LT(children.ru_maxrss, 64 * 1024);
#endif
    std::filesystem::remove(trace.path + ".html");
    std::filesystem::remove(trace.path + ".out");
}
