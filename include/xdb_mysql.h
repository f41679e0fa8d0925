/* SPDX-License-Identifier: MIT */
/**
 * @file xdb_mysql.h
 * @brief A connection to a MySQL or MariaDB server that keeps its settings and its operations.
 *
 * The caller owns the object, and one thread at a time uses it. Failures are told on standard error
 * and returned as the client library's error number. Nothing is tried again here: whether a lost
 * connection is made anew is the client library's business, which `reconnect` asks for. A thread is
 * not cancelled while it waits for the server.
 *
 * A host that uses this links the client library, libmariadb or libmysqlclient, and calls
 * mysql_library_init() before it starts threads; one that forgets to link it is told by its linker.
 *
 * @code{.c}
 * #include <string.h>
 * #include <xdb_mysql.h>
 *
 * int main(void) {
 *     static MySQLConfig config;
 *     static MySQLConnection connection;
 *     strcpy(config.unix_socket, "/nowhere/mysql.sock"); // and .user, .passwd, .db
 *     if (MySQLConnectionInit(&connection, &config) != 0)
 *         return 1;
 *     int lost = connection.connect(&connection) != 0 || connection.keep(&connection) != 0;
 *     connection.destroy(&connection);
 *     return lost ? 0 : 1; // nobody listens there
 * }
 * @endcode
 */
#ifndef KEEL_XDB_MYSQL_H
#define KEEL_XDB_MYSQL_H

#if __has_include(<mysql.h>)
#include <mysql.h>
#else
#include <mysql/mysql.h>
#endif
#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** Where the server is and who asks. Longer texts than 511 characters are cut. */
typedef struct MySQLConfig {
    char db[512];          /**< the database to begin with; empty: none */
    char host[512];        /**< name or address of the server; empty: this machine */
    char user[512];        /**< the user's name; empty: that of the process's owner */
    char passwd[512];      /**< the password; empty: none */
    char unix_socket[512]; /**< path of the server's socket; empty: none */
    uint32_t port;         /**< 0: the usual one */
    uint64_t client_flag;  /**< CLIENT_COMPRESS and others; 0: none. With CLIENT_REMEMBER_OPTIONS
                              `reconnect` also holds after a connect that failed */
    uint64_t reconnect;    /**< 1: a lost connection is made anew; only the first byte counts */
} MySQLConfig;

typedef struct MySQLConnection MySQLConnection;

/** Takes the rows of a statement. Its result becomes that of the operation. `res` is for the call
 * only, and freed by the caller. */
typedef int (*MySQLResult)(MySQLConnection *c, MYSQL_RES *res, void *arg);

/**
 * A connection; a pointer to it is also one to its `handle`. Its operations give 0, or the client
 * library's error number after a message on standard error, or -1 for a null object.
 */
struct MySQLConnection {
    MYSQL handle;       /**< the client library's own record */
    MySQLConfig config; /**< a copy of what MySQLConnectionInit() was given */

    /** Closes the connection and ends the client library for the whole process: one connection per
     * process is what it is made for. The memory is the caller's. Gives 0. Afterwards only
     * MySQLConnectionInit() may be called with it. */
    int (*destroy)(MySQLConnection *c);

    /** Connects; again, where it failed. A connection that was made and lost is for `reconnect`, or
     * for a new object: the client library does not free what a second connect replaces. "MySQL
     * connect Error: TEXT". */
    int (*connect)(MySQLConnection *c);

    /** Runs the statement of `length` bytes at `sql`, and has `on_result`, unless it is null, take
     * its rows: then its result is given. A statement without rows gives 0. A null statement or one
     * without length gives -1. "MySQL execSQL(STATEMENT) Error: TEXT". */
    int (*execSQL)(MySQLConnection *c, const char *sql, unsigned long length, MySQLResult on_result,
                   void *arg);

    /** Changes the database. A null name gives -1. "MySQL useDB Error: TEXT". */
    int (*useDB)(MySQLConnection *c, const char *db);

    /** Has the server answer something trivial, so that it does not drop an idle connection. Gives
     * what `execSQL` does. */
    int (*keep)(MySQLConnection *c);
};

/**
 * Makes an object with a copy of `cfg`, not connected yet. Returns 0; -1 where a pointer is null,
 * or the client library is out of memory or not there.
 */
KEEL_API int MySQLConnectionInit(MySQLConnection *c, const MySQLConfig *cfg);

/** @cond linkage */
/* The library itself names the client library weakly, for the sake of hosts that do without. This
 * is what makes an object that makes a connection need it. */
static inline __attribute__((__always_inline__)) void keel_needs_mysql(void) {
    __asm__ volatile("" : : "r"(&mysql_init));
}

#define MySQLConnectionInit(...) (keel_needs_mysql(), MySQLConnectionInit(__VA_ARGS__))
/** @endcond */

KEEL_END_DECLS

#endif
