// The command line of brenvole-trace.
#include "commands.h"
#include "text.h"

#include "terminal/terminal.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>

namespace {

using traceview::Options;

constexpr const char *kAbout =
    "Reads the traces of Brenvole: finds the lines of source that lose frames, and what else went wrong.";

constexpr const char *kExamples = R"(Examples:
  QXBRENVOLE_TRACE=1 QXBRENVOLE_TRACE_FILE=frames.csv ./player film.mkv
  brenvole-trace summary frames.csv              what was lost, and by which line
  brenvole-trace leaks frames.csv --site mixer   each allocation that mixer's lines lost
  brenvole-trace life frames.csv 11              all that happened to allocation 11
  brenvole-trace report frames.csv -o page.html  charts, for a browser
  zcat frames.csv.gz | brenvole-trace summary -  from standard input

It ends with 0 if nothing is outstanding and nothing went wrong, with 1 if something is or did or if the trace
doesn't tell all, and with 2 if the file can't be read or isn't a trace; so a test can call it.)";

CLI::App *addCommand(CLI::App &app, Options &options, const char *name, const char *about) {
    CLI::App *const command = app.add_subcommand(name, about);
    command->add_option("FILE", options.file, "The trace; - for standard input")->required();
    return command;
}

void addJson(CLI::App *command, Options &options) {
    command->add_flag("--json", options.json, "One JSON document in the place of a table");
}

// Decimal, and not 0, which stands for no allocation.
uint64_t parseId(const std::string &text) {
    uint64_t id = 0;
    const char *const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, id);
    if (error != std::errc{} || behind != end || id == 0) {
        throw CLI::ValidationError("ALLOC_ID", "\"" + traceview::printable(text) + "\" is no allocation's number");
    }
    return id;
}

int run(int count, char **words) {
    Options options;
    CLI::App app(kAbout, "brenvole-trace");
    app.footer(kExamples);
    app.set_version_flag("--version", "brenvole-trace " BRENVOLE_VERSION);
    app.require_subcommand(1);

    CLI::App *const summary =
        addCommand(app, options, "summary", "One screen: figures, problems, and what is outstanding by call site");
    addJson(summary, options);
    CLI::App *const leaks = addCommand(app, options, "leaks", "Each allocation that nobody has released");
    addJson(leaks, options);
    leaks->add_option("--site", options.site, "Only those made by call sites that hold this text, as mixer.c:14");
    CLI::App *const problems =
        addCommand(app, options, "problems", "Each problem, with the line that made the allocation");
    addJson(problems, options);
    CLI::App *const life = addCommand(app, options, "life", "All that happened to one allocation, in order");
    addJson(life, options);
    life->add_option_function<std::string>(
            "ALLOC_ID", [&](const std::string &text) { options.allocId = parseId(text); },
            "Its number, from the column alloc_id")
        ->required();
    CLI::App *const report =
        addCommand(app, options, "report", "A page with charts, which a browser shows without a network");
    report->add_option("-o,--output", options.output, "The page's file; - for standard output")->required();

    if (count > 1 && words[1][0] != '-' &&
        app.get_subcommands([&](const CLI::App *command) { return command->check_name(words[1]); }).empty()) {
        std::fprintf(stderr, "brenvole-trace: no such command: %s; --help tells which there are\n",
                     traceview::printable(words[1]).c_str());
        return traceview::kUnreadable;
    }
    try {
        app.parse(count, words);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? traceview::kClean : traceview::kUnreadable;
    }
    if (summary->parsed()) {
        return traceview::runSummary(options);
    }
    if (leaks->parsed()) {
        return traceview::runLeaks(options);
    }
    if (problems->parsed()) {
        return traceview::runProblems(options);
    }
    if (life->parsed()) {
        return traceview::runLife(options);
    }
    return traceview::runReport(options);
}

} // namespace

int main(int count, char **words) {
    prepareStreams();
    try {
        const int result = run(count, words);
        if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
            return result;
        }
        std::fputs("brenvole-trace: the output can't be written\n", stderr);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "brenvole-trace: %s\n", error.what());
    }
    return traceview::kUnreadable;
}
