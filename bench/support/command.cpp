/* SPDX-License-Identifier: MIT */
#include "command.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <spawn.h>
#include <string>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "table.h"

namespace bench {

namespace {

std::vector<char *> arguments_of(const std::vector<std::string> &words) {
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str())); // never written to
    arguments.push_back(nullptr);
    return arguments;
}

int wait_for(pid_t child) {
    int status = 0;
    require(waitpid(child, &status, 0) == child, "waitpid failed");
    return status;
}

/* The number that the line `name`: of a process's status holds. */
double status_figure(pid_t process, const std::string &name) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string word; status >> word;)
        if (double figure = 0; word == name + ":" && status >> figure)
            return figure;
    fail("a process without " + name);
}

double further_objects(pid_t process) {
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    std::set<std::string> objects;
    for (std::string line; std::getline(maps, line);)
        if (line.find(".so") != line.npos && line.find("libkeel") == line.npos)
            objects.insert(line.substr(line.find('/')));
    return static_cast<double>(objects.size());
}

} // namespace

void run_command(const std::vector<std::string> &words) {
    posix_spawn_file_actions_t output;
    posix_spawn_file_actions_init(&output);
    posix_spawn_file_actions_addopen(&output, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&output, STDOUT_FILENO, STDERR_FILENO);
    pid_t child = -1;
    const int error = posix_spawnp(&child, words[0].c_str(), &output, nullptr,
                                   arguments_of(words).data(), environ);
    posix_spawn_file_actions_destroy(&output);
    if (error != 0 || wait_for(child) != 0)
        fail(words[0] + " failed");
}

footprint footprint_of(const std::string &program) {
    const std::vector<std::string> words = {program};
    const std::vector<char *> arguments = arguments_of(words);
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    require(child != -1 && WIFSTOPPED(wait_for(child)), "a program could not be traced");
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACEEXIT);
    ptrace(PTRACE_CONT, child, nullptr, nullptr);
    require(wait_for(child) >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8), "a program ended early");
    const footprint seen = {status_figure(child, "VmHWM"), further_objects(child)};
    ptrace(PTRACE_CONT, child, nullptr, nullptr);
    require(wait_for(child) == 0, "a program failed");
    return seen;
}

} // namespace bench
