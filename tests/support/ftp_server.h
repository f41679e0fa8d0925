/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <netinet/in.h>
#include <pwd.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "temp_dir.h"
#include "waiting.h"

namespace keel_test {

/* A program that runs beside the test and is killed with its scope. */
class child_program {
  public:
    /* Its standard input and output are `in` and `out`, descriptors that are closed here. It dies
     * with the thread that starts it. */
    child_program(std::vector<std::string> command, int in, int out) {
        std::vector<char *> arguments;
        for (std::string &argument : command)
            arguments.push_back(argument.data());
        arguments.push_back(nullptr);
        child_ = fork();
        if (child_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setpgid(0, 0);
            dup2(in, STDIN_FILENO);
            dup2(out, STDOUT_FILENO);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        close(in);
        close(out);
    }
    ~child_program() { end(); }
    child_program(child_program &&other) noexcept : child_(std::exchange(other.child_, -1)) {}
    child_program &operator=(child_program &&) = delete;

    bool runs() const {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(child_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

    /* Those that it has started go too. */
    void end() {
        if (child_ <= 0)
            return;
        kill(-child_, SIGKILL);
        kill(child_, SIGKILL);
        waitpid(std::exchange(child_, -1), nullptr, 0);
    }

  private:
    pid_t child_ = -1;
};

inline sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/* A TCP port that nobody listens on: free for the moment. */
inline int free_port() {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    const bool bound = bind(probe, reinterpret_cast<sockaddr *>(&address), length) == 0 &&
                       getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length) == 0;
    close(probe);
    if (!bound)
        throw std::runtime_error("no port");
    return ntohs(address.sin_port);
}

inline bool someone_listens(int port) {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    const bool connected =
        connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(probe);
    return connected;
}

/* An FTP server on 127.0.0.1 that serves a directory of its own for as long as it lives. The
 * scripted one, ftp_server.py, takes options; the independent one is vsftpd. */
class ftp_server {
  public:
    enum kind { scripted, independent };

    explicit ftp_server(const std::vector<std::string> &options = {}) { start(scripted, options); }
    explicit ftp_server(kind which) { start(which, {}); }

    const char *user() const { return which_ == scripted ? "keeper" : "ftp"; }
    const char *password() const { return "secret"; }

    std::string url(const std::string &name = "") const {
        return "ftp://127.0.0.1:" + std::to_string(port_) + (which_ == scripted ? "/" : "/files/") +
               name;
    }

    /* Where it keeps what it serves. */
    std::string path(const std::string &name) const { return root() + "/" + name; }
    std::string content(const std::string &name) const { return content_of(path(name)); }
    bool has(const std::string &name) const { return std::filesystem::exists(path(name)); }
    void put(const std::string &name, const std::string &content) const {
        write_file(path(name), content);
        std::filesystem::permissions(path(name), std::filesystem::perms(0666));
    }

    /* What the scripted one was sent; with `verbs`, of these commands alone. A QUIT, for whose
     * answer nobody has to wait, is left out. */
    std::vector<std::string> commands(std::initializer_list<std::string> verbs = {}) const {
        std::vector<std::string> seen;
        std::ifstream log(dir_ / "commands");
        for (std::string line; std::getline(log, line);) {
            const std::string verb = line.substr(0, line.find(' '));
            const bool wanted = verbs.size() == 0
                                    ? verb != "QUIT"
                                    : std::find(verbs.begin(), verbs.end(), verb) != verbs.end();
            if (wanted)
                seen.push_back(line);
        }
        return seen;
    }

    /* Whether the scripted one is sent this command within a minute. */
    bool is_sent(const std::string &verb) const {
        return eventually([&] { return !commands({verb}).empty(); });
    }

    void stop() {
        if (lifeline_ != -1)
            close(std::exchange(lifeline_, -1));
        server_.front().end();
    }

    /* Again, on the same directory, at another port. */
    void restart(const std::vector<std::string> &options = {}) {
        stop();
        server_.clear();
        run(options);
    }

    ~ftp_server() { stop(); }
    ftp_server(const ftp_server &) = delete;
    ftp_server &operator=(const ftp_server &) = delete;

  private:
    std::string root() const { return dir_ / "served/files"; }

    void start(kind which, const std::vector<std::string> &options) {
        which_ = which;
        std::filesystem::create_directories(root());
        std::filesystem::permissions(dir_.path(), std::filesystem::perms(0755));
        std::filesystem::permissions(root(), std::filesystem::perms(0777));
        run(options);
    }

    void run(const std::vector<std::string> &options) {
        which_ == scripted ? run_scripted(options) : run_independent();
    }

    void run_scripted(const std::vector<std::string> &options) {
        static const std::string script =
            std::filesystem::path(__FILE__).replace_filename("ftp_server.py");
        int in[2];
        int out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        std::vector<std::string> command = {"/usr/bin/python3", script, root(), "--commands",
                                            dir_ / "commands"};
        command.insert(command.end(), options.begin(), options.end());
        server_.emplace_back(std::move(command), in[0], out[1]);
        lifeline_ = in[1];
        std::string said;
        for (char c = '\0'; read(out[0], &c, 1) == 1 && c != '\n';)
            said += c;
        close(out[0]);
        if (said.empty())
            throw std::runtime_error("no FTP server; is python3-pyftpdlib there?");
        port_ = std::stoi(said);
    }

    /* A port may be lost to somebody else before it is listened on. */
    void run_independent() {
        for (int tries = 0; tries < 10; tries++) {
            port_ = free_port();
            write_settings();
            server_.clear();
            server_.emplace_back(
                std::vector<std::string>{"/usr/sbin/vsftpd", dir_ / "settings"},
                open("/dev/null", O_RDONLY | O_CLOEXEC),
                open((dir_ / "said").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
            if (eventually([&] { return someone_listens(port_) || !server_.front().runs(); }) &&
                server_.front().runs())
                return;
        }
        throw std::runtime_error("no FTP server; is vsftpd there? " + content_of(dir_ / "said"));
    }

    /* Its users would have to be the system's. So it takes anonymous ones, whose password is on a
     * list, and lets them do all that others may, below a directory that is not theirs. */
    void write_settings() const {
        std::filesystem::create_directory(dir_ / "empty");
        write_file(dir_ / "passwords", "secret\n");
        write_file(dir_ / "settings", R"(listen=YES
listen_address=127.0.0.1
background=NO
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
connect_from_port_20=NO
xferlog_enable=NO
local_enable=NO
anonymous_enable=YES
ftp_username=daemon
secure_email_list_enable=YES
delay_failed_login=0
write_enable=YES
anon_upload_enable=YES
anon_mkdir_write_enable=YES
anon_other_write_enable=YES
anon_world_readable_only=NO
anon_umask=022
anon_root=)" + (dir_ / "served") + R"(
secure_chroot_dir=)" + (dir_ / "empty") + R"(
email_password_file=)" + (dir_ / "passwords") +
                                          R"(
listen_port=)" + std::to_string(port_) + "\n");
        std::filesystem::permissions(dir_ / "settings", std::filesystem::perms(0600));
    }

    temp_dir dir_;
    kind which_ = scripted;
    int port_ = 0;
    int lifeline_ = -1; /* the scripted one's standard input */
    std::vector<child_program> server_;
};

} // namespace keel_test
