/* SPDX-License-Identifier: MIT */
#pragma once

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

#include "waiting.h"

namespace keel_test {

/* A child process, killed and reaped when the test is done with it. */
class process {
  public:
    /* Runs the program in the file `path`, in `directory`, with these arguments, of which the first
     * is its name; they can be seen once this returns. Its standard streams lead nowhere. */
    process(const std::string &path, const std::vector<std::string> &arguments,
            const std::string &directory = "/") {
        std::vector<char *> argv;
        for (const std::string &argument : arguments)
            argv.push_back(const_cast<char *>(argument.c_str()));
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
        const int error = posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
            throw std::runtime_error("no process of " + path);
        await_arguments();
    }

    /* A copy of this process, which runs `body` and ends with status 0. It does not outlive the
     * thread that makes it. */
    explicit process(const std::function<void()> &body) : pid_(fork()) {
        if (pid_ == -1)
            throw std::runtime_error("no copy of the process");
        if (pid_ != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        _exit(0);
    }

    ~process() { kill(); }
    process(process &&other) noexcept : pid_(std::exchange(other.pid_, 0)) {}
    process &operator=(process &&) = delete;

    /* 0 once it is reaped. */
    pid_t pid() const { return pid_; }

    /* Reaps it when it has ended; returns what waitpid() tells of its end. */
    int wait() {
        int status = 0;
        waitpid(std::exchange(pid_, 0), &status, 0);
        return status;
    }

    /* Kills it, if it still runs, and reaps it. */
    void kill() {
        if (pid_ == 0)
            return;
        ::kill(pid_, SIGKILL);
        wait();
    }

    /* Returns when it has ended, and leaves it unreaped: a zombie. */
    void await_end() const {
        siginfo_t end{};
        waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOWAIT);
    }

  private:
    bool has_ended() const {
        siginfo_t end{};
        waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOWAIT | WNOHANG);
        return end.si_pid != 0;
    }

    /* For a moment a program that has been started still has this one's arguments, and then none.
     */
    void await_arguments() const {
        const std::string entry = "/proc/" + std::to_string(pid_);
        const auto program_of = [](const std::string &of) {
            std::error_code gone;
            return std::filesystem::read_symlink(of + "/exe", gone);
        };
        const std::filesystem::path own = program_of("/proc/self");
        eventually([&] {
            std::ifstream arguments(entry + "/cmdline");
            return !arguments || (program_of(entry) != own && arguments.peek() != EOF) ||
                   has_ended();
        });
    }

    pid_t pid_ = 0;
};

/* A name for a program that no other process on the machine has. */
inline std::string unique_program_name(const std::string &word) {
    return "keel-" + word + "-" + std::to_string(getpid());
}

/* Makes the program `from` a file called `to` as well; returns `to`. */
inline std::string copy_program(const std::string &from, const std::string &to) {
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
    return to;
}

} // namespace keel_test
