/* SPDX-License-Identifier: MIT */
/* The shortest statement there is, to a database server on this machine and back. */
#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>
#include <xdb_mysql.h>

#include "files.h"
#include "server.h"
#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr int round_trips = 2'000;
constexpr char statement[] = "SELECT 1";
constexpr unsigned long length = sizeof statement - 1;

/* Connects to the server's socket as root, who needs no password there. */
void open_connection(MySQLConnection &object, const std::string &socket) {
    static MySQLConfig config;
    std::strcpy(config.user, "root");
    require(socket.size() < sizeof config.unix_socket, "the socket's path is too long");
    std::strcpy(config.unix_socket, socket.c_str());
    require(MySQLConnectionInit(&object, &config) == 0 && object.connect(&object) == 0,
            "no connection");
}

bool answers(const std::string &socket) {
    MYSQL *handle = mysql_init(nullptr);
    const bool connected = mysql_real_connect(handle, nullptr, "root", nullptr, nullptr, 0,
                                              socket.c_str(), 0) != nullptr;
    mysql_close(handle);
    return connected;
}

int count_rows(MySQLConnection *, MYSQL_RES *result, void *rows) {
    *static_cast<my_ulonglong *>(rows) += mysql_num_rows(result);
    return 0;
}

void keel_statement(MySQLConnection &object) {
    my_ulonglong rows = 0;
    require(object.execSQL(&object, statement, length, count_rows, &rows) == 0 && rows == 1,
            "execSQL failed");
}

void keel_keep(MySQLConnection &object) {
    require(object.keep(&object) == 0, "keep failed");
}

void raw_statement(MySQLConnection &object) {
    MYSQL *handle = &object.handle;
    require(mysql_real_query(handle, statement, length) == 0, "mysql_real_query failed");
    MYSQL_RES *result = mysql_store_result(handle);
    require(result != nullptr && mysql_num_rows(result) == 1, "mysql_store_result failed");
    mysql_free_result(result);
}

void raw_ping(MySQLConnection &object) {
    require(mysql_ping(&object.handle) == 0, "mysql_ping failed");
}

struct way {
    const char *name;
    void (*go)(MySQLConnection &);
    double bar = 0;
};

constexpr way ways[] = {{"keel execSQL, a callback", keel_statement},
                        {"the client's own calls", raw_statement, 1.02},
                        {"keel keep", keel_keep},
                        {"mysql_ping, no statement", raw_ping}};

/* Rounds of all ways, which take turns on one connection with each round trip: what else the
 * machine does, and where the system puts the server's thread, outweighs what is to be seen. */
class turns {
  public:
    explicit turns(MySQLConnection &object) : object_(object) {}

    /* The figure of a round that this way has not given yet. */
    double next(std::size_t index) {
        const std::size_t round = given_[index]++;
        while (rounds_.size() <= round)
            rounds_.push_back(play());
        return rounds_[round][index];
    }

  private:
    using figures = std::array<double, std::size(ways)>;

    /* First quartiles: the trips that nothing has delayed. */
    figures play() {
        std::array<std::vector<double>, std::size(ways)> times;
        for (int i = 0; i < round_trips; i++)
            for (std::size_t index = 0; index < std::size(ways); index++)
                times[index].push_back(microseconds(ways[index]));
        figures quartiles{};
        for (std::size_t index = 0; index < std::size(ways); index++) {
            const auto quartile = times[index].begin() + round_trips / 4;
            std::nth_element(times[index].begin(), quartile, times[index].end());
            quartiles[index] = *quartile;
        }
        return quartiles;
    }

    double microseconds(const way &one) {
        const auto begin = std::chrono::steady_clock::now();
        one.go(object_);
        const std::chrono::duration<double, std::micro> taken =
            std::chrono::steady_clock::now() - begin;
        return taken.count();
    }

    MySQLConnection &object_;
    std::array<std::size_t, std::size(ways)> given_{};
    std::vector<figures> rounds_;
};

std::vector<bench::contender> contenders(turns &played) {
    std::vector<bench::contender> rows;
    for (std::size_t index = 0; index < std::size(ways); index++)
        rows.push_back({ways[index].name,
                        [&played, index] {
                            return job{.amount = [&played, index] { return played.next(index); }};
                        },
                        ways[index].bar});
    return rows;
}

} // namespace

int main(int argc, char *argv[]) {
    require(mysql_library_init(0, nullptr, nullptr) == 0, "mysql_library_init failed");
    const bench::scratch_dir home(bench::memory_dir());
    const std::string socket = home / "socket";
    bench::server database({MARIADB_SERVER, home.path(), "--skip-networking"}, home / "output");
    database.wait_until([&socket] { return answers(socket); });
    static MySQLConnection object;
    open_connection(object, socket);

    turns played(object);
    const int result = bench::measure(
        argc, argv,
        {{.title = "MySQL, a statement to the server and its row back, first quartile",
          .item = "round trip",
          .floor = "two wake-ups, and the server's work on a statement",
          .contenders = contenders(played),
          .unit = "us"}});
    object.destroy(&object);
    return result;
}
