/* SPDX-License-Identifier: MIT */
#include "xdb_mysql.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "caught_output.h"

namespace {

using keel_test::caught_stream;

/* The client library of this program: it notes how it is called, and answers as told. */
struct client {
    std::vector<std::string> calls{};
    bool has_memory = true;
    int error = 0;       /* of each call that can fail; 0: it does not fail */
    int store_error = 0; /* of a result that gets lost on its way */
    bool has_rows = false;
    MYSQL_RES *rows = nullptr;
    const void *reconnect = nullptr;
    MYSQL *handle = nullptr;
} played;

void note(MYSQL *handle, const std::string &call) {
    played.calls.push_back(call);
    EXPECT_EQ(handle, played.handle) << call;
}

std::string text_of(const char *text) {
    return text != nullptr ? '"' + std::string(text) + '"' : "null";
}

} // namespace

extern "C" {

MYSQL *mysql_init(MYSQL *handle) {
    const std::string bytes(reinterpret_cast<const char *>(handle), sizeof *handle);
    EXPECT_EQ(bytes, std::string(sizeof *handle, '\0'));
    played.handle = handle;
    note(handle, "init");
    return played.has_memory ? handle : nullptr;
}

int mysql_options(MYSQL *handle, mysql_option option, const void *value) {
    note(handle, "options " + std::to_string(option));
    played.reconnect = value;
    return 0;
}

MYSQL *mysql_real_connect(MYSQL *handle, const char *host, const char *user, const char *passwd,
                          const char *db, unsigned port, const char *socket, unsigned long flags) {
    note(handle, "connect " + text_of(host) + " " + text_of(user) + " " + text_of(passwd) + " " +
                     text_of(db) + " " + std::to_string(port) + " " + text_of(socket) + " " +
                     std::to_string(flags));
    return played.error == 0 ? handle : nullptr;
}

int mysql_real_query(MYSQL *handle, const char *sql, unsigned long length) {
    note(handle, "query " + std::string(sql, length));
    return played.error;
}

MYSQL_RES *mysql_store_result(MYSQL *handle) {
    note(handle, "store");
    return played.rows;
}

unsigned mysql_field_count(MYSQL *handle) {
    note(handle, "field_count");
    return played.has_rows ? 1 : 0;
}

void mysql_free_result(MYSQL_RES *rows) {
    EXPECT_EQ(rows, played.rows);
    played.calls.emplace_back("free");
}

int mysql_select_db(MYSQL *handle, const char *db) {
    note(handle, "select_db " + text_of(db));
    return played.error;
}

const char *mysql_error(MYSQL *handle) {
    EXPECT_EQ(handle, played.handle);
    return "it is so";
}

unsigned mysql_errno(MYSQL *handle) {
    EXPECT_EQ(handle, played.handle);
    return static_cast<unsigned>(played.error != 0 ? played.error : played.store_error);
}

void mysql_close(MYSQL *handle) {
    note(handle, "close");
}

void mysql_server_end() {
    played.calls.emplace_back("server_end");
}

} // extern "C"

namespace {

using strings = std::vector<std::string>;

/* An object on a client library that begins anew. */
class MySqlClient : public testing::Test {
  protected:
    void SetUp() override { init(MySQLConfig{}); }
    void TearDown() override { played = {}; }

    void init(const MySQLConfig &config) {
        played = {};
        std::memset(static_cast<void *>(&c_), 0x5a, sizeof c_);
        ASSERT_EQ(MySQLConnectionInit(&c_, &config), 0);
    }

    /* The calls since it was asked last. */
    static strings calls() { return std::exchange(played.calls, {}); }

    /* Runs `operation` and gives its result. */
    template <class Operation>
    int run(Operation operation) {
        const caught_stream out(stdout);
        const caught_stream err(stderr);
        const int result = operation();
        EXPECT_EQ(out.text(), "");
        said_ = err.text();
        return result;
    }

    int query(MySQLResult on_result = nullptr, void *arg = nullptr) {
        return run([&] { return c_.execSQL(&c_, "ask!", 3, on_result, arg); });
    }

    MySQLConnection c_;
    std::string said_;
};

int note_callback(MySQLConnection *c, MYSQL_RES *rows, void *arg) {
    note(&c->handle, "callback");
    EXPECT_EQ(rows, played.rows);
    return *static_cast<int *>(arg);
}

/* Any will do: nobody looks into it here. */
MYSQL_RES *some_rows() {
    static MYSQL_RES rows;
    return &rows;
}

TEST_F(MySqlClient, IsMadeReadyForReconnecting) {
    EXPECT_EQ(calls(), (strings{"init", "options 20"}));
    EXPECT_EQ(played.reconnect, &c_.config.reconnect);
}

TEST_F(MySqlClient, WithoutMemoryGivesNoObject) {
    played = {.has_memory = false};
    const MySQLConfig config{};
    EXPECT_EQ(run([&] { return MySQLConnectionInit(&c_, &config); }), -1);
    EXPECT_EQ(said_, "");
    EXPECT_EQ(calls(), strings{"init"});
}

TEST_F(MySqlClient, ConnectsWithNullForWhatIsEmpty) {
    EXPECT_EQ(run([&] { return c_.connect(&c_); }), 0);
    EXPECT_EQ(said_, "");
    EXPECT_EQ(calls().back(), R"(connect "" "" "" null 0 null 0)");
}

TEST_F(MySqlClient, ConnectsWithWhatIsGiven) {
    MySQLConfig config = {"d", "h", "u", "p", "s", 0xffffffff, 0x8000000080000001, 0};
    init(config);
    std::memset(static_cast<void *>(&config), 'x', sizeof config); // it has its own copy
    EXPECT_EQ(run([&] { return c_.connect(&c_); }), 0);
    EXPECT_EQ(calls().back(), R"(connect "h" "u" "p" "d" 4294967295 "s" 9223372039002259457)");
    played.error = 2002;
    EXPECT_EQ(run([&] { return c_.connect(&c_); }), 2002);
    EXPECT_EQ(said_, "MySQL connect Error: it is so\n");
}

TEST_F(MySqlClient, AsksForNoRowsOfAFailedStatement) {
    calls();
    played.error = 1064;
    EXPECT_EQ(query(), 1064);
    EXPECT_EQ(said_, "MySQL execSQL(ask) Error: it is so\n");
    EXPECT_EQ(calls(), strings{"query ask"});
}

TEST_F(MySqlClient, FreesRowsWithAndWithoutACallback) {
    calls();
    played.rows = some_rows();
    played.has_rows = true;
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(calls(), (strings{"query ask", "store", "free"}));
    int result = 77;
    EXPECT_EQ(query(note_callback, &result), 77);
    EXPECT_EQ(calls(), (strings{"query ask", "store", "callback", "free"}));
    EXPECT_EQ(said_, "");
}

TEST_F(MySqlClient, TellsAStatementWithoutRowsFromLostRows) {
    calls();
    int result = 77;
    EXPECT_EQ(query(note_callback, &result), 0);
    EXPECT_EQ(said_, "");
    EXPECT_EQ(calls(), (strings{"query ask", "store", "field_count"}));
    played.has_rows = true;
    played.store_error = 2013;
    EXPECT_EQ(query(note_callback, &result), 2013);
    EXPECT_EQ(said_, "MySQL execSQL(ask) Error: it is so\n");
    EXPECT_EQ(calls(), (strings{"query ask", "store", "field_count"}));
}

TEST_F(MySqlClient, ChangesTheDatabase) {
    calls();
    EXPECT_EQ(run([&] { return c_.useDB(&c_, "shelf"); }), 0);
    EXPECT_EQ(said_, "");
    EXPECT_EQ(run([&] { return c_.useDB(&c_, ""); }), 0);
    EXPECT_EQ(calls(), (strings{R"(select_db "shelf")", R"(select_db "")"}));
    played.error = 1049;
    EXPECT_EQ(run([&] { return c_.useDB(&c_, "attic"); }), 1049);
    EXPECT_EQ(said_, "MySQL useDB Error: it is so\n");
}

TEST_F(MySqlClient, IsKeptByAStatementWithoutACallback) {
    calls();
    played.rows = some_rows();
    EXPECT_EQ(run([&] { return c_.keep(&c_); }), 0);
    EXPECT_EQ(calls(), (strings{"query SELECT 1", "store", "free"}));
}

TEST_F(MySqlClient, IsNotCalledForNull) {
    calls();
    EXPECT_EQ(c_.connect(nullptr), -1);
    EXPECT_EQ(c_.execSQL(nullptr, "ask", 3, nullptr, nullptr), -1);
    EXPECT_EQ(c_.execSQL(&c_, nullptr, 3, nullptr, nullptr), -1);
    EXPECT_EQ(c_.execSQL(&c_, "ask", 0, nullptr, nullptr), -1);
    EXPECT_EQ(c_.useDB(nullptr, "shelf"), -1);
    EXPECT_EQ(c_.useDB(&c_, nullptr), -1);
    EXPECT_EQ(c_.keep(nullptr), -1);
    EXPECT_EQ(c_.destroy(nullptr), -1);
    EXPECT_EQ(calls(), strings{});
}

TEST_F(MySqlClient, IsEndedAfterItsConnection) {
    calls();
    EXPECT_EQ(run([&] { return c_.destroy(&c_); }), 0);
    EXPECT_EQ(calls(), (strings{"close", "server_end"}));
    EXPECT_EQ(said_, "");
}

} // namespace
