#include "child.h"

#include <algorithm>
#include <array>

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::vector<char *> pointersTo(std::vector<std::string> &texts) {
    std::vector<char *> pointers(texts.size());
    std::transform(texts.begin(), texts.end(), pointers.begin(), [](std::string &text) { return text.data(); });
    return pointers;
}

// Not by its name: a program that names the variable gets a copy of it, and a library that was loaded into a scope of
// its own would look at the other one.
char **ownEnvironment() { return *static_cast<char ***>(dlsym(RTLD_DEFAULT, "environ")); }

// The child's process number, or -1. `out` becomes its standard output.
pid_t spawn(const std::string &program, std::vector<std::string> &arguments, std::vector<std::string> &settings,
            int out) {
    std::vector<char *> argumentList = pointersTo(arguments);
    argumentList.insert(argumentList.begin(), const_cast<char *>(program.c_str()));
    argumentList.push_back(nullptr);
    std::vector<char *> environment = pointersTo(settings);
    for (char **inherited = ownEnvironment(); *inherited != nullptr; ++inherited) {
        environment.push_back(*inherited);
    }
    environment.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    pid_t child = -1;
    const int refused =
        posix_spawn(&child, program.c_str(), &actions, nullptr, argumentList.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    return refused == 0 ? child : -1;
}

std::string readAll(int from) {
    std::string all;
    std::array<char, 256> piece;
    for (ssize_t got = 0; (got = read(from, piece.data(), piece.size())) > 0;) {
        all.append(piece.data(), static_cast<std::size_t>(got));
    }
    return all;
}

} // namespace

ChildResult childRun(const std::string &program, std::vector<std::string> arguments,
                     std::vector<std::string> settings) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {false, {}};
    }
    const pid_t child = spawn(program, arguments, settings, ends[1]);
    close(ends[1]);
    ChildResult result{false, readAll(ends[0])};
    close(ends[0]);
    int status = -1;
    result.whole =
        child != -1 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return result;
}
