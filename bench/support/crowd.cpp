/* SPDX-License-Identifier: MIT */
#include "crowd.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "table.h"

namespace bench {

namespace {

std::size_t count_processes() {
    std::size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const char first = *entry.path().filename().c_str();
        count += first >= '0' && first <= '9';
    }
    return count;
}

} // namespace

crowd::crowd() {
    require(pipe2(silence_, O_CLOEXEC) == 0, "pipe2 failed");
}

crowd::~crowd() {
    shrink_to(0);
    for (const int end : silence_)
        close(end);
}

void crowd::start_one() {
    std::string name = "sleeper-" + std::to_string(sleepers_.size());
    char *const arguments[] = {name.data(), nullptr};
    posix_spawn_file_actions_t input;
    posix_spawn_file_actions_init(&input);
    posix_spawn_file_actions_adddup2(&input, silence_[0], STDIN_FILENO);
    pid_t sleeper = -1;
    const int error = posix_spawnp(&sleeper, "cat", &input, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&input);
    require(error == 0, "a sleeper could not be started");
    sleepers_.push_back(sleeper);
}

void crowd::shrink_to(std::size_t size) {
    for (std::size_t i = size; i < sleepers_.size(); i++)
        kill(sleepers_[i], SIGKILL);
    for (; sleepers_.size() > size; sleepers_.pop_back())
        waitpid(sleepers_.back(), nullptr, 0);
}

void crowd::fill_to(std::size_t size) {
    const std::size_t others = count_processes() - sleepers_.size();
    require(others < size, "there are too many other processes");
    shrink_to(std::min(sleepers_.size(), size - others));
    while (sleepers_.size() < size - others)
        start_one();
}

} // namespace bench
