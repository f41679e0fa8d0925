/* SPDX-License-Identifier: MIT */
#include "xdb_mysql.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <malloc.h>
#include <memory>
#include <optional>
#include <ostream>
#include <pthread.h>
#include <string>
#include <vector>

#include "cancelled.h"
#include "caught_output.h"
#include "child.h"
#include "descriptors.h"
#include "leaves_nothing.h"
#include "mariadb_server.h"

/* There with the address and the thread sanitizer, whose heap mallinfo2() does not know. */
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak)); // NOLINT

namespace {

using keel_test::caught_stream;
using keel_test::count_descriptors;
using keel_test::exited;
using keel_test::mariadb_server;
using keel_test::run_cancelled;
using keel_test::run_in_child;

std::size_t heap_in_use() {
    return __sanitizer_get_current_allocated_bytes != nullptr
               ? __sanitizer_get_current_allocated_bytes()
               : mallinfo2().uordblks;
}

template <std::size_t Size>
void set(char (&field)[Size], const std::string &text) {
    field[text.copy(field, Size - 1)] = '\0';
}

template <class Record>
std::string bytes_of(const Record &record) {
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

/* What an operation came to. */
struct outcome {
    int result;
    std::string out;
    std::string err;

    bool operator==(const outcome &) const = default;
};

void PrintTo(const outcome &what, std::ostream *stream) {
    *stream << "result " << what.result << ", out \"" << what.out << "\", err \"" << what.err
            << "\"";
}

outcome outcome_of(const std::function<int()> &operation) {
    const caught_stream out(stdout);
    const caught_stream err(stderr);
    const int result = operation();
    return {result, out.text(), err.text()};
}

/* Nothing is said. */
outcome silent(int result) {
    return {result, "", ""};
}

/* An object of the library's, destroyed with its scope. */
class connection {
  public:
    explicit connection(const MySQLConfig &config) {
        if (MySQLConnectionInit(&c_, &config) != 0)
            throw std::runtime_error("no connection object");
    }
    ~connection() { c_.destroy(&c_); }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    MySQLConnection *operator&() { return &c_; } // NOLINT: it stands for the object
    MySQLConnection *operator->() { return &c_; }

    outcome connect() {
        return outcome_of([&] { return c_.connect(&c_); });
    }
    outcome run(const std::string &sql, MySQLResult on_result = nullptr, void *arg = nullptr) {
        return outcome_of([&] { return c_.execSQL(&c_, sql.data(), sql.size(), on_result, arg); });
    }
    outcome use(const std::string &database) {
        return outcome_of([&] { return c_.useDB(&c_, database.c_str()); });
    }
    outcome keep() {
        return outcome_of([&] { return c_.keep(&c_); });
    }

    /* How an operation ends that fails. */
    void expect_failure(const outcome &told, int result, const std::string &what) {
        const std::string text = mysql_error(&c_.handle);
        EXPECT_FALSE(text.empty());
        EXPECT_EQ(told, (outcome{result, "", "MySQL " + what + " Error: " + text + "\n"}));
    }

    unsigned long id() { return mysql_thread_id(&c_.handle); }

  private:
    MySQLConnection c_;
};

using rows = std::vector<std::vector<std::string>>;

/* Callback: copies all rows to `arg`. */
int take_rows(MySQLConnection *, MYSQL_RES *res, void *arg) {
    rows &taken = *static_cast<rows *>(arg);
    while (MYSQL_ROW row = mysql_fetch_row(res)) {
        const unsigned long *lengths = mysql_fetch_lengths(res);
        std::vector<std::string> &fields = taken.emplace_back();
        for (unsigned i = 0; i < mysql_num_fields(res); i++)
            fields.push_back(row[i] != nullptr ? std::string(row[i], lengths[i]) : "NULL");
    }
    return 0;
}

/* The rows of a statement that has some and does not fail. */
rows ask(connection &c, const std::string &sql) {
    rows taken;
    EXPECT_EQ(c.run(sql, take_rows, &taken), silent(0)) << sql.substr(0, 100);
    return taken;
}

rows one(const std::string &value) {
    return {{value}};
}

/* ---- Without a server ------------------------------------------------------------------------ */

TEST(MySqlRecords, HaveTheirFieldsInOrder) {
    EXPECT_EQ(offsetof(MySQLConfig, db), 0U);
    EXPECT_EQ(offsetof(MySQLConfig, host), 512U);
    EXPECT_EQ(offsetof(MySQLConfig, user), 1024U);
    EXPECT_EQ(offsetof(MySQLConfig, passwd), 1536U);
    EXPECT_EQ(offsetof(MySQLConfig, unix_socket), 2048U);
    EXPECT_EQ(offsetof(MySQLConfig, port), 2560U);
    EXPECT_EQ(offsetof(MySQLConfig, client_flag), 2568U);
    EXPECT_EQ(offsetof(MySQLConfig, reconnect), 2576U);
    EXPECT_EQ(sizeof(MySQLConfig), 2584U);

    EXPECT_EQ(offsetof(MySQLConnection, handle), 0U);
    EXPECT_EQ(offsetof(MySQLConnection, config), sizeof(MYSQL));
    constexpr std::size_t slots = offsetof(MySQLConnection, config) + sizeof(MySQLConfig);
    EXPECT_EQ(offsetof(MySQLConnection, destroy), slots);
    EXPECT_EQ(offsetof(MySQLConnection, connect), slots + 8);
    EXPECT_EQ(offsetof(MySQLConnection, execSQL), slots + 16);
    EXPECT_EQ(offsetof(MySQLConnection, useDB), slots + 24);
    EXPECT_EQ(offsetof(MySQLConnection, keep), slots + 32);
    EXPECT_EQ(sizeof(MySQLConnection), slots + 40);
}

TEST(MySqlInit, RefusesNull) {
    const MySQLConfig config{};
    MySQLConnection c;
    std::memset(static_cast<void *>(&c), 0x5a, sizeof c);
    EXPECT_EQ(outcome_of([&] { return MySQLConnectionInit(nullptr, &config); }), silent(-1));
    EXPECT_EQ(outcome_of([&] { return MySQLConnectionInit(&c, nullptr); }), silent(-1));
    EXPECT_EQ(outcome_of([] { return MySQLConnectionInit(nullptr, nullptr); }), silent(-1));
    EXPECT_EQ(bytes_of(c), std::string(sizeof c, 0x5a));
}

TEST(MySqlInit, CopiesTheSettingsWhole) {
    MySQLConfig config;
    std::memset(static_cast<void *>(&config), 0, sizeof config);
    set(config.db, "shelf");
    set(config.host, std::string(511, 'h'));
    set(config.user, "keeper");
    set(config.passwd, "secret");
    set(config.unix_socket, "/nowhere/mysql.sock");
    config.port = 0xfedcba98;
    config.client_flag = 0x123456789abcdef0;
    config.reconnect = 0x8877665544332201;
    const auto c = std::make_unique<MySQLConnection>();
    std::memset(static_cast<void *>(c.get()), 0x5a, sizeof *c);
    ASSERT_EQ(outcome_of([&] { return MySQLConnectionInit(c.get(), &config); }), silent(0));
    EXPECT_EQ(bytes_of(c->config), bytes_of(config));
    EXPECT_EQ(mysql_errno(&c->handle), 0U);
    EXPECT_STREQ(mysql_error(reinterpret_cast<MYSQL *>(c.get())), "");
    EXPECT_EQ(c->destroy(c.get()), 0);
}

/* Such a record reaches the client library as text with an end. */
TEST(MySqlInit, CutsTextsWithoutAnEnd) {
    const auto full = std::make_unique<MySQLConfig>();
    std::memset(static_cast<void *>(full.get()), 'x', offsetof(MySQLConfig, port));
    connection c(*full);
    const std::string cut(511, 'x');
    for (const char *field :
         {c->config.db, c->config.host, c->config.user, c->config.passwd, c->config.unix_socket})
        EXPECT_EQ(field, cut);
    EXPECT_EQ(full->db[511], 'x');
    const outcome told = c.connect();
    EXPECT_GT(told.result, 0);
    c.expect_failure(told, told.result, "connect");
}

TEST(MySqlInit, TakesTheFirstByteOfReconnect) {
    const struct {
        std::uint64_t reconnect;
        bool expected;
    } cases[] = {{0, false}, {1, true}, {0x100, false}, {0x7700000000000001, true}};
    for (const auto &[reconnect, expected] : cases) {
        MySQLConfig config{};
        config.reconnect = reconnect;
        connection c(config);
        my_bool value = 2;
        ASSERT_EQ(mysql_get_option(&c->handle, MYSQL_OPT_RECONNECT, &value), 0);
        EXPECT_EQ(value != 0, expected) << reconnect;
    }
}

TEST(MySqlOperations, RefuseNull) {
    connection c(MySQLConfig{});
    const auto refused = [](const std::function<int()> &operation) {
        EXPECT_EQ(outcome_of(operation), silent(-1));
    };
    refused([&] { return c->destroy(nullptr); });
    refused([&] { return c->connect(nullptr); });
    refused([&] { return c->execSQL(nullptr, "SELECT 1", 8, nullptr, nullptr); });
    refused([&] { return c->execSQL(&c, nullptr, 8, nullptr, nullptr); });
    refused([&] { return c->execSQL(&c, "SELECT 1", 0, nullptr, nullptr); });
    refused([&] { return c->execSQL(&c, nullptr, 0, nullptr, nullptr); });
    refused([&] { return c->useDB(nullptr, "shelf"); });
    refused([&] { return c->useDB(&c, nullptr); });
    refused([&] { return c->useDB(nullptr, nullptr); });
    refused([&] { return c->keep(nullptr); });
    EXPECT_EQ(mysql_errno(&c->handle), 0U);
}

TEST(MySqlOperations, FailWithoutAConnection) {
    connection c(MySQLConfig{});
    c.expect_failure(c.run("SELECT 2"), 2006, "execSQL(SELECT 2)");
    c.expect_failure(c.use("shelf"), 2006, "useDB");
    c.expect_failure(c.keep(), 2006, "execSQL(SELECT 1)");
}

/* The statement is told as text, and no further than it goes. */
TEST(MySqlOperations, TellTheStatementWithinItsLength) {
    connection c(MySQLConfig{});
    const std::unique_ptr<char[]> exact(new char[6]{'D', 'E', 'L', 'E', 'T', 'E'});
    c.expect_failure(outcome_of([&] { return c->execSQL(&c, exact.get(), 6, nullptr, nullptr); }),
                     2006, "execSQL(DELETE)");
    c.expect_failure(c.run(std::string("SELECT\0 1", 9)), 2006, "execSQL(SELECT)");
    c.expect_failure(c.run("%s%n %d"), 2006, "execSQL(%s%n %d)");
}

TEST(MySqlConnect, SaysWhereNobodyListens) {
    MySQLConfig config{};
    set(config.unix_socket, "/nowhere/mysql.sock");
    EXPECT_EQ(run_in_child([&] {
                  connection c(config);
                  _exit(c->connect(&c) == 2002 ? 7 : 8);
              }),
              exited(7, "MySQL connect Error: Can't connect to local server through socket "
                        "'/nowhere/mysql.sock' (2)\n"));
}

struct seen_call {
    MySQLConnection *c;
    std::string sql;
    unsigned long length;
    MySQLResult on_result;
    void *arg;
} seen;

int see_call(MySQLConnection *c, const char *sql, unsigned long length, MySQLResult on_result,
             void *arg) {
    seen = {c, sql, length, on_result, arg};
    return 4711;
}

TEST(MySqlKeep, GoesThroughTheObjectsOwnSlot) {
    connection c(MySQLConfig{});
    seen = {nullptr, "", 0, take_rows, &seen};
    c->execSQL = see_call;
    EXPECT_EQ(c.keep(), silent(4711));
    EXPECT_EQ(seen.c, &c);
    EXPECT_EQ(seen.sql, "SELECT 1");
    EXPECT_EQ(seen.length, 8U);
    EXPECT_EQ(seen.on_result, nullptr);
    EXPECT_EQ(seen.arg, nullptr);
}

TEST(MySqlDestroy, LeavesTheMemoryToItsCaller) {
    const MySQLConfig config{};
    const auto c = std::make_unique<MySQLConnection>();
    for (int round = 0; round < 3; round++) { // the client library begins anew each time
        ASSERT_EQ(MySQLConnectionInit(c.get(), &config), 0);
        EXPECT_EQ(outcome_of([&] { return c->destroy(c.get()); }), silent(0));
    }
}

/* ---- With a server --------------------------------------------------------------------------- */

class MySql : public testing::Test {
  protected:
    static void SetUpTestSuite() { started_.emplace(); }
    static void TearDownTestSuite() { started_.reset(); }

    void TearDown() override { EXPECT_EQ(count_descriptors(), descriptors_); }

    static mariadb_server &server() { return *started_; }

    /* The server's socket. */
    static MySQLConfig settings(bool reconnect = false) {
        MySQLConfig config{};
        set(config.db, "shelf");
        set(config.user, "keeper");
        set(config.passwd, "secret");
        set(config.unix_socket, server().socket());
        config.reconnect = reconnect;
        return config;
    }

    static MySQLConfig settings_for_tcp() {
        MySQLConfig config = settings();
        set(config.unix_socket, "");
        set(config.host, server().host());
        config.port = server().port();
        return config;
    }

    /* What the server knows of a session. */
    static std::string session(const std::string &column, connection &c) {
        return server().tells(
            "select " + column +
            " from information_schema.processlist where id = " + std::to_string(c.id()));
    }

  private:
    static inline std::optional<mariadb_server> started_;

    keel_test::watchdog watchdog_{240};
    std::ptrdiff_t descriptors_ = count_descriptors();
};

/* How `config` is answered. The process ends with the number of the error, which is its low byte.
 */
keel_test::child_result connected_in_child(const MySQLConfig &config) {
    return run_in_child([&] {
        connection c(config);
        _exit(c->connect(&c) & 0xff);
    });
}

TEST_F(MySql, ConnectsThroughItsSocket) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    EXPECT_EQ(session("user, host, db", c), "keeper\tlocalhost\tshelf\n");
}

TEST_F(MySql, ConnectsOverTcp) {
    connection c(settings_for_tcp());
    ASSERT_EQ(c.connect(), silent(0));
    const std::string peer = session("host", c);
    EXPECT_EQ(peer.substr(0, peer.find(':')), "127.0.0.1") << peer;
    EXPECT_EQ(ask(c, "select @@port"), one(std::to_string(server().port())));
}

TEST_F(MySql, ConnectsWithoutADatabase) {
    MySQLConfig config = settings();
    set(config.db, "");
    connection c(config);
    ASSERT_EQ(c.connect(), silent(0));
    EXPECT_EQ(ask(c, "select database()"), one("NULL"));
}

TEST_F(MySql, HandsTheClientFlagsThrough) {
    for (const auto &[flag, expected] : {std::pair{0, 0}, std::pair{CLIENT_FOUND_ROWS, 1}}) {
        MySQLConfig config = settings();
        config.client_flag = static_cast<std::uint64_t>(flag);
        connection c(config);
        ASSERT_EQ(c.connect(), silent(0));
        ASSERT_EQ(c.run("create temporary table t (n int) select 5 n"), silent(0));
        ASSERT_EQ(c.run("update t set n = 5"), silent(0));
        EXPECT_EQ(mysql_affected_rows(&c->handle), static_cast<my_ulonglong>(expected));
    }
}

TEST_F(MySql, RefusesAWrongPassword) {
    MySQLConfig config = settings();
    set(config.passwd, "secrets");
    EXPECT_EQ(connected_in_child(config),
              exited(1045 & 0xff, "MySQL connect Error: Access denied for user "
                                  "'keeper'@'localhost' (using password: YES)\n"));
    connection c(config);
    EXPECT_EQ(c.connect().result, 1045);
    set(c->config.passwd, "secret"); // an object that failed is as good as new
    EXPECT_EQ(c.connect(), silent(0));
    EXPECT_EQ(c.keep(), silent(0));
}

TEST_F(MySql, RefusesAnUnknownDatabase) {
    server().tells("grant all on attic.* to keeper");
    MySQLConfig config = settings_for_tcp();
    set(config.db, "attic");
    EXPECT_EQ(connected_in_child(config),
              exited(1049 & 0xff, "MySQL connect Error: Unknown database 'attic'\n"));
    connection c(config);
    EXPECT_EQ(c.connect().result, 1049);
}

TEST_F(MySql, ConnectsOnce) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    c.expect_failure(c.connect(), 2058, "connect");
    EXPECT_EQ(c.keep(), silent(0));
}

TEST_F(MySql, RunsStatementsWithoutRows) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    const auto never = [](MySQLConnection *, MYSQL_RES *, void *) -> int { std::abort(); };
    EXPECT_EQ(c.run("create table t (n int)", never), silent(0));
    EXPECT_EQ(c.run("insert into t values (1), (2)", never), silent(0));
    EXPECT_EQ(c.run("update t set n = n + 1", never), silent(0));
    EXPECT_EQ(mysql_affected_rows(&c->handle), 2U);
    EXPECT_EQ(server().tells("select group_concat(n order by n) from shelf.t"), "2,3\n");
    EXPECT_EQ(c.run("delete from t where n = 77"), silent(0));
    EXPECT_EQ(c.run("drop table t"), silent(0));
}

/* A result that were kept would have the next statement fail. */
TEST_F(MySql, FreesTheRowsThatNobodyTakes) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    for (int round = 0; round < 3; round++) {
        EXPECT_EQ(c.run("select 1 union select 2"), silent(0));
        EXPECT_EQ(c.run("select 1 where false"), silent(0));
    }
    EXPECT_EQ(ask(c, "select 5, null, 'x'"), (rows{{"5", "NULL", "x"}}));
}

struct taken {
    MySQLConnection *c;
    my_ulonglong rows;
    int result;
};

int note_call(MySQLConnection *c, MYSQL_RES *res, void *arg) {
    taken &to = *static_cast<taken *>(arg);
    to.c = c;
    to.rows = mysql_num_rows(res);
    return to.result;
}

TEST_F(MySql, GivesTheCallbacksResult) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    for (const int result : {0, 7, -1, 2006, INT_MIN, INT_MAX}) {
        taken to{nullptr, 99, result};
        EXPECT_EQ(c.run("select 1 union select 2 union select 3", note_call, &to), silent(result));
        EXPECT_EQ(to.c, &c);
        EXPECT_EQ(to.rows, 3U);
        EXPECT_EQ(c.run("select 1 where false", note_call, &to), silent(result));
        EXPECT_EQ(to.rows, 0U);
    }
    EXPECT_EQ(c.run("select 1", [](MySQLConnection *, MYSQL_RES *,
                                   void *arg) { return arg == nullptr ? 3 : 4; }),
              silent(3));
}

/* All rows are here before the callback is called. */
TEST_F(MySql, LetsACallbackRunStatements) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    const auto double_each = [](MySQLConnection *self, MYSQL_RES *res, void *arg) {
        while (MYSQL_ROW row = mysql_fetch_row(res)) {
            const std::string sql = "select 2 * " + std::string(row[0]);
            if (self->execSQL(self, sql.data(), sql.size(), take_rows, arg) != 0)
                return 1;
        }
        return 0;
    };
    rows doubled;
    EXPECT_EQ(c.run("select 1 union select 20", double_each, &doubled), silent(0));
    EXPECT_EQ(doubled, (rows{{"2"}, {"40"}}));
}

TEST_F(MySql, TellsWhatIsWrongWithAStatement) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    const auto never = [](MySQLConnection *, MYSQL_RES *, void *) -> int { std::abort(); };
    EXPECT_EQ(c.run("select * from nothing", never),
              (outcome{1146, "",
                       "MySQL execSQL(select * from nothing) Error: Table 'shelf.nothing' doesn't "
                       "exist\n"}));
    EXPECT_EQ(c.run("bogus").result, 1064);
    EXPECT_EQ(c.run("select (select 1 union select 2)", never),
              (outcome{1242, "",
                       "MySQL execSQL(select (select 1 union select 2)) Error: Subquery returns "
                       "more than 1 row\n"}));
    EXPECT_EQ(run_in_child([&] {
                  connection other(settings());
                  _exit(other->connect(&other) != 0 ||
                        other->execSQL(&other, "bog", 3, nullptr, nullptr) != 1064);
              }),
              exited(0, "MySQL execSQL(bog) Error: You have an error in your SQL syntax; check the "
                        "manual that corresponds to your MariaDB server version for the right "
                        "syntax to use near 'bog' at line 1\n"));
    EXPECT_EQ(c.keep(), silent(0));
}

TEST_F(MySql, SendsAStatementOfItsLength) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    rows taken;
    EXPECT_EQ(outcome_of([&] { return c->execSQL(&c, "select 12345", 9, take_rows, &taken); }),
              silent(0));
    EXPECT_EQ(taken, one("12"));
}

/* Each byte value, of which none is left out or read as an end. */
TEST_F(MySql, SendsMegabytesWithNulBytes) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    std::string blob(1 << 20, '\0');
    for (std::size_t i = 0; i < blob.size(); i++)
        blob[i] = static_cast<char>(i * i >> 3);
    std::string quoted(2 * blob.size() + 1, '\0');
    quoted.resize(mysql_real_escape_string(&c->handle, quoted.data(), blob.data(), blob.size()));
    ASSERT_EQ(c.run("create temporary table t (b longblob)"), silent(0));
    ASSERT_EQ(c.run("insert into t values (_binary'" + quoted + "')"), silent(0));
    EXPECT_TRUE(ask(c, "select b from t") == one(blob));

    using namespace std::string_literals;
    ASSERT_EQ(c.run("replace into t select _binary'a\0\0b'"s), silent(0));
    EXPECT_EQ(ask(c, "select hex(b) from t where length(b) < 10"), one("61000062"));
}

TEST_F(MySql, SurvivesAStatementThatTheServerRefusesForItsSize) {
    connection c(settings(true));
    ASSERT_EQ(c.connect(), silent(0));
    const std::string huge = "select '" + std::string(20 << 20, 'x') + "'";
    const outcome told = c.run(huge);
    EXPECT_TRUE(told.result == 1153 || told.result == 2006 || told.result == 2013) << told.result;
    EXPECT_TRUE(told.err.starts_with("MySQL execSQL(" + huge + ") Error: "));
    EXPECT_EQ(c.keep(), silent(0));
}

TEST_F(MySql, DoesNotAskTheServerForNothing) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    const std::string counter = "show session status like 'Questions'";
    const int before = std::stoi(ask(c, counter)[0][1]);
    EXPECT_EQ(outcome_of([&] { return c->execSQL(&c, "select 1", 0, nullptr, nullptr); }),
              silent(-1));
    EXPECT_EQ(outcome_of([&] { return c->useDB(&c, nullptr); }), silent(-1));
    EXPECT_EQ(std::stoi(ask(c, counter)[0][1]), before + 1);
    EXPECT_EQ(c.keep(), silent(0));
    EXPECT_EQ(std::stoi(ask(c, counter)[0][1]), before + 3);
}

TEST_F(MySql, ChangesTheDatabase) {
    server().tells("create or replace database other; grant all on other.* to keeper;"
                   "create or replace database locked; grant all on absent.* to keeper");
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    EXPECT_EQ(c.use("other"), silent(0));
    EXPECT_EQ(ask(c, "select database()"), one("other"));
    EXPECT_EQ(session("db", c), "other\n");
    EXPECT_EQ(c.use("absent"),
              (outcome{1049, "", "MySQL useDB Error: Unknown database 'absent'\n"}));
    EXPECT_EQ(c.use("locked"), (outcome{1044, "",
                                        "MySQL useDB Error: Access denied for user 'keeper'@'%' to "
                                        "database 'locked'\n"}));
    EXPECT_EQ(c.use("").result, 1046);
    EXPECT_GT(c.use(std::string(100'000, 'x')).result, 0);
    EXPECT_EQ(ask(c, "select database()"), one("other"));
    EXPECT_STREQ(c->config.db, "shelf");
}

TEST_F(MySql, LosesASessionThatIsEnded) {
    connection c(settings_for_tcp()); // where nothing tells before the answer stays away
    ASSERT_EQ(c.connect(), silent(0));
    const unsigned long first = c.id();
    server().end_session(first);
    c.expect_failure(c.keep(), 2013, "execSQL(SELECT 1)");
    c.expect_failure(c.keep(), 2006, "execSQL(SELECT 1)");
    c.expect_failure(c.use("shelf"), 2006, "useDB");
    connection anew(settings_for_tcp());
    EXPECT_EQ(anew.connect(), silent(0));
    EXPECT_NE(anew.id(), first);
    EXPECT_EQ(anew.keep(), silent(0));
}

TEST_F(MySql, ReconnectsWhereItIsToldTo) {
    for (MySQLConfig config : {settings(true), settings_for_tcp()}) {
        config.reconnect = 1;
        connection c(config);
        ASSERT_EQ(c.connect(), silent(0));
        for (int round = 0; round < 3; round++) {
            const unsigned long former = c.id();
            server().end_session(former);
            EXPECT_EQ(ask(c, "select database()"), one("shelf"));
            EXPECT_NE(c.id(), former);
        }
        const unsigned long former = c.id();
        server().end_session(former);
        EXPECT_EQ(c.keep(), silent(0));
        EXPECT_NE(c.id(), former);
    }
}

TEST_F(MySql, OutlivesItsServer) {
    connection lasting(settings(true));
    connection passing(settings_for_tcp());
    ASSERT_EQ(lasting.connect(), silent(0));
    ASSERT_EQ(passing.connect(), silent(0));
    server().stop();
    for (int round = 0; round < 3; round++)
        EXPECT_EQ(lasting.keep(), (outcome{2002, "",
                                           "MySQL execSQL(SELECT 1) Error: Can't connect to local "
                                           "server through socket '" +
                                               server().socket() + "' (2)\n"}));
    passing.expect_failure(passing.keep(), 2013, "execSQL(SELECT 1)");
    passing.expect_failure(passing.keep(), 2006, "execSQL(SELECT 1)");
    connection late(settings_for_tcp());
    late.expect_failure(late.connect(), 2002, "connect");
    server().start();
    EXPECT_EQ(ask(lasting, "select database()"), one("shelf"));
    EXPECT_EQ(passing.keep().result, 2006);
    EXPECT_EQ(late.connect(), silent(0));
    EXPECT_EQ(late.keep(), silent(0));
}

/* A first connect that fails has the client library forget what it was told, unless it is to
 * remember. */
TEST_F(MySql, RemembersToReconnectAfterAFailureWhereItIsToldTo) {
    MySQLConfig config = settings(true);
    set(config.unix_socket, "/nowhere/mysql.sock");
    config.client_flag = CLIENT_REMEMBER_OPTIONS;
    connection c(config);
    ASSERT_EQ(c.connect().result, 2002);
    set(c->config.unix_socket, server().socket());
    ASSERT_EQ(c.connect(), silent(0));
    const unsigned long former = c.id();
    server().end_session(former);
    EXPECT_EQ(c.keep(), silent(0));
    EXPECT_NE(c.id(), former);
}

/* A cancelled callback ends its thread there; its rows are freed, and the connection is whole. */
TEST_F(MySql, FreesTheRowsOfACancelledCallback) {
    connection c(settings());
    ASSERT_EQ(c.connect(), silent(0));
    const auto end_here = [](MySQLConnection *, MYSQL_RES *, void *) {
        pthread_testcancel();
        return 0;
    };
    bool returned = false;
    EXPECT_TRUE(run_cancelled([&] {
        c->execSQL(&c, "select 1", 8, end_here, nullptr);
        returned = true;
    }));
    EXPECT_FALSE(returned);
    EXPECT_EQ(ask(c, "select 6"), one("6"));
}

TEST_F(MySql, IsNotCancelledWhileItWaits) {
    connection c(settings());
    int results[] = {-1, -1, -1, -1};
    EXPECT_TRUE(run_cancelled([&] {
        results[0] = c->connect(&c);
        results[1] = c->useDB(&c, "shelf");
        results[2] = c->keep(&c);
        results[3] = c->execSQL(&c, "create temporary table t (n int)", 32, nullptr, nullptr);
    }));
    for (const int result : results)
        EXPECT_EQ(result, 0);
    EXPECT_EQ(ask(c, "select count(*) from t"), one("0"));
}

TEST_F(MySql, LeavesNothingBehindTenThousandStatements) {
    connection c(settings());
    ASSERT_EQ(c->connect(&c), 0);
    ASSERT_EQ(c->execSQL(&c, "create temporary table t (n int)", 32, nullptr, nullptr), 0);
    taken to{};
    const auto run_many = [&](int count) {
        for (int i = 0; i < count; i++)
            if (c->keep(&c) != 0 ||
                c->execSQL(&c, "insert into t values (1)", 24, nullptr, nullptr) != 0 ||
                c->execSQL(&c, "select * from t limit 5", 23, note_call, &to) != 0 ||
                c->useDB(&c, "shelf") != 0)
                return false;
        return true;
    };
    ASSERT_TRUE(run_many(100)); // until the allocator keeps no more of what it got back
    const auto descriptors = count_descriptors();
    const std::size_t heap = heap_in_use();
    ASSERT_TRUE(run_many(10'000));
    EXPECT_LT(heap_in_use(), heap + 10'000) << "not a byte a statement";
    EXPECT_EQ(count_descriptors(), descriptors);
    EXPECT_EQ(ask(c, "select count(*) from t"), one("10100"));
}

TEST_F(MySql, LeavesNothingBehindConnectionsThatComeAndGo) {
    const MySQLConfig config = settings();
    MySQLConfig wrong = config;
    set(wrong.passwd, "secrets");
    const auto come_and_go = [&](int count) {
        const caught_stream err(stderr);
        for (int i = 0; i < count; i++) {
            connection good(config);
            if (good->connect(&good) != 0 || good->keep(&good) != 0 ||
                good->execSQL(&good, "bogus", 5, nullptr, nullptr) != 1064)
                return false;
            connection bad(wrong);
            if (bad->connect(&bad) != 1045 || bad->connect(&bad) != 1045)
                return false;
        }
        return true;
    };
    ASSERT_TRUE(come_and_go(20));
    const auto descriptors = count_descriptors();
    const std::size_t heap = heap_in_use();
    ASSERT_TRUE(come_and_go(1000));
    EXPECT_LT(heap_in_use(), heap + 1000) << "not a byte a connection";
    EXPECT_EQ(count_descriptors(), descriptors);
}

} // namespace
