/* SPDX-License-Identifier: MIT */
#include "server.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <netinet/in.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "table.h"

namespace bench {

namespace {

using namespace std::chrono_literals;

[[noreturn]] void become(const std::vector<std::string> &words, const std::string &output,
                         pid_t bench) {
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str())); // never written to
    arguments.push_back(nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (getppid() == bench && file != -1 && dup2(file, STDOUT_FILENO) != -1 &&
        dup2(file, STDERR_FILENO) != -1)
        execvp(arguments[0], arguments.data());
    _exit(127);
}

/* A TCP socket on the loopback interface. */
class loopback_socket {
  public:
    explicit loopback_socket(std::uint16_t port) {
        address_.sin_family = AF_INET;
        address_.sin_port = htons(port);
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    ~loopback_socket() { close(number_); }
    loopback_socket(const loopback_socket &) = delete;
    loopback_socket &operator=(const loopback_socket &) = delete;

    bool connects() { return connect(number_, plain(), sizeof address_) == 0; }
    std::uint16_t bound() {
        socklen_t length = sizeof address_;
        require(bind(number_, plain(), length) == 0 && getsockname(number_, plain(), &length) == 0,
                "no port is free");
        return ntohs(address_.sin_port);
    }

  private:
    sockaddr *plain() { return reinterpret_cast<sockaddr *>(&address_); }

    sockaddr_in address_{};
    int number_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

std::vector<std::string> ftp_command_line(const scratch_dir &home, std::uint16_t port) {
    for (const char *directory : {"files", "empty"})
        std::filesystem::create_directory(home / directory);
    write_file(
        home / "settings",
        "listen=YES\nbackground=NO\nlisten_address=127.0.0.1\nlisten_port=" + std::to_string(port) +
            "\nrun_as_launching_user=YES\nseccomp_sandbox=NO\n"
            "anonymous_enable=YES\nno_anon_password=YES\nanon_upload_enable=YES\n"
            "anon_other_write_enable=YES\nanon_world_readable_only=NO\nwrite_enable=YES\n"
            "allow_writeable_chroot=YES\nanon_root=" +
            home / "files" + "\nsecure_chroot_dir=" + home / "empty" + "\n");
    return {VSFTPD, home / "settings"};
}

} // namespace

server::server(const std::vector<std::string> &words, const std::string &output)
    : name_(words[0]), output_(output) {
    const pid_t bench = getpid();
    process_ = fork();
    if (process_ == 0)
        become(words, output, bench);
    require(process_ != -1, "fork failed");
}

server::~server() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
}

void server::wait_until(const std::function<bool()> &ready) {
    const auto deadline = std::chrono::steady_clock::now() + 1min;
    while (!ready()) {
        if (siginfo_t ended{};
            waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            ended.si_pid == process_)
            give_up(name_ + " has ended");
        if (std::chrono::steady_clock::now() > deadline)
            give_up(name_ + " is not ready");
        std::this_thread::sleep_for(10ms);
    }
}

void server::give_up(const std::string &what) const {
    std::cerr << std::ifstream(output_).rdbuf();
    fail(what);
}

ftp_server::ftp_server()
    : home_(memory_dir()), port_(loopback_socket(0).bound()),
      program_(ftp_command_line(home_, port_), home_ / "log") {
    program_.wait_until([this] { return loopback_socket(port_).connects(); });
}

std::string ftp_server::url(const std::string &file) const {
    return "ftp://127.0.0.1:" + std::to_string(port_) + "/" + file;
}

} // namespace bench
