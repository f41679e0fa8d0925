/* SPDX-License-Identifier: MIT */
#include "xdb_mysql.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "announce.h"
#include "cancel_shield.h"

#undef MySQLConnectionInit

/* Hosts without a database do without the client library. */
#pragma weak mysql_init
#pragma weak mysql_options
#pragma weak mysql_real_connect
#pragma weak mysql_real_query
#pragma weak mysql_store_result
#pragma weak mysql_field_count
#pragma weak mysql_free_result
#pragma weak mysql_select_db
#pragma weak mysql_error
#pragma weak mysql_errno
#pragma weak mysql_close
#pragma weak mysql_server_end

namespace {

using keel::announce;
using keel::cancel_shield;

struct free_result {
    void operator()(MYSQL_RES *result) const {
        const cancel_shield shield;
        mysql_free_result(result);
    }
};

using unique_result = std::unique_ptr<MYSQL_RES, free_result>;

/* Text that the caller's record may hold without an end. */
template <std::size_t Size>
void terminate(char (&text)[Size]) {
    text[Size - 1] = '\0';
}

const char *null_if_empty(const char *text) {
    return *text != '\0' ? text : nullptr;
}

int error_number(MySQLConnection *c) {
    return static_cast<int>(mysql_errno(&c->handle));
}

int destroy(MySQLConnection *c) {
    if (c == nullptr)
        return -1;
    const cancel_shield shield;
    mysql_close(&c->handle);
    mysql_server_end();
    return 0;
}

int connect(MySQLConnection *c) {
    if (c == nullptr)
        return -1;
    const cancel_shield shield;
    const MySQLConfig &to = c->config;
    if (mysql_real_connect(&c->handle, to.host, to.user, to.passwd, null_if_empty(to.db), to.port,
                           null_if_empty(to.unix_socket),
                           static_cast<unsigned long>(to.client_flag)) != nullptr)
        return 0;
    announce(stderr, "MySQL connect Error: %s\n", mysql_error(&c->handle));
    return error_number(c);
}

int execSQL(MySQLConnection *c, const char *sql, unsigned long length, MySQLResult on_result,
            void *arg) {
    if (c == nullptr || sql == nullptr || length == 0)
        return -1;
    unique_result result;
    {
        const cancel_shield shield;
        if (mysql_real_query(&c->handle, sql, length) == 0) {
            result.reset(mysql_store_result(&c->handle));
            if (result == nullptr && mysql_field_count(&c->handle) == 0)
                return 0;
        }
        if (result == nullptr) {
            const auto shown = static_cast<int>(std::min<unsigned long>(length, INT_MAX));
            announce(stderr, "MySQL execSQL(%.*s) Error: %s\n", shown, sql,
                     mysql_error(&c->handle));
            return error_number(c);
        }
    }
    return on_result != nullptr ? on_result(c, result.get(), arg) : 0;
}

int useDB(MySQLConnection *c, const char *db) {
    if (c == nullptr || db == nullptr)
        return -1;
    const cancel_shield shield;
    if (mysql_select_db(&c->handle, db) == 0)
        return 0;
    announce(stderr, "MySQL useDB Error: %s\n", mysql_error(&c->handle));
    return error_number(c);
}

int keep(MySQLConnection *c) {
    return c != nullptr ? c->execSQL(c, "SELECT 1", 8, nullptr, nullptr) : -1;
}

} // namespace

int MySQLConnectionInit(MySQLConnection *c, const MySQLConfig *cfg) {
    if (c == nullptr || cfg == nullptr)
        return -1;
    *c = {};
    if (mysql_init == nullptr || mysql_init(&c->handle) == nullptr)
        return -1;
    c->config = *cfg;
    terminate(c->config.db);
    terminate(c->config.host);
    terminate(c->config.user);
    terminate(c->config.passwd);
    terminate(c->config.unix_socket);
    c->destroy = destroy;
    c->connect = connect;
    c->execSQL = execSQL;
    c->useDB = useDB;
    c->keep = keep;
    mysql_options(&c->handle, MYSQL_OPT_RECONNECT, &c->config.reconnect);
    return 0;
}
