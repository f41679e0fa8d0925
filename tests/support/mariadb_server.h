/* SPDX-License-Identifier: MIT */
#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "temp_dir.h"
#include "udp.h"
#include "waiting.h"

namespace keel_test {

/* A database server for one test: its database "shelf" is for the user "keeper", whose password is
 * "secret". It is gone with its data when the scope or, at the latest, the process ends. */
class mariadb_server {
  public:
    mariadb_server() { start(); }
    ~mariadb_server() { end(SIGKILL); }
    mariadb_server(const mariadb_server &) = delete;
    mariadb_server &operator=(const mariadb_server &) = delete;

    std::string socket() const { return dir_ / "socket"; }
    const std::string &host() const { return home; }
    std::uint16_t port() const { return here; }

    /* Returns once it takes connections. */
    void start() {
        const std::string log = dir_ / "log";
        std::filesystem::remove(log);
        const std::string address = "--bind-address=" + host();
        const std::string number = "--port=" + std::to_string(port());
        const pid_t test = getpid();
        server_ = fork();
        if (server_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() == test)
                execl(MARIADB_SERVER, MARIADB_SERVER, dir_.path().c_str(), address.c_str(),
                      number.c_str(), nullptr);
            _exit(127);
        }
        if (!eventually([&] { return is_ready(log) || has_ended(); }) || !is_ready(log)) {
            end(SIGKILL);
            throw std::runtime_error("no database server: " + content_of(log));
        }
    }

    /* Returns once nobody answers any more. */
    void stop() { end(SIGTERM); }

    /* What it answers its root, columns apart by tabs; nothing of the library has a part in it. */
    std::string tells(const std::string &question) const {
        write_file(dir_ / "question", question);
        const std::string command = "mariadb --no-defaults --user=root --batch --skip-column-names"
                                    " --socket=" +
                                    socket() + " <" + (dir_ / "question");
        FILE *client = popen(command.c_str(), "re");
        if (client == nullptr)
            throw std::runtime_error("no client");
        std::string answer;
        for (int c; (c = std::fgetc(client)) != EOF;)
            answer += static_cast<char>(c);
        if (pclose(client) != 0)
            throw std::runtime_error("no answer to: " + question);
        return answer;
    }

    /* Returns once the session is gone. */
    void end_session(unsigned long id) const {
        const std::string number = std::to_string(id);
        tells("kill " + number);
        const std::string left =
            "select count(*) from information_schema.processlist where id = " + number;
        if (!eventually([&] { return tells(left) == "0\n"; }))
            throw std::runtime_error("session " + number + " does not end");
    }

  private:
    static bool is_ready(const std::string &log) {
        return content_of(log).find("ready for connections") != std::string::npos;
    }

    bool has_ended() {
        if (server_ != -1 && waitpid(server_, nullptr, WNOHANG) == server_)
            server_ = -1;
        return server_ == -1;
    }

    void end(int signal) {
        if (server_ == -1)
            return;
        kill(server_, signal);
        waitpid(server_, nullptr, 0);
        server_ = -1;
    }

    temp_dir dir_;
    pid_t server_ = -1;
};

} // namespace keel_test
