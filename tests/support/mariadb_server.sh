#!/usr/bin/env bash
# A database server of a test's own, on the socket DIR/socket. It runs in the place of this script,
# and ends with whoever started it, also where that is killed. Its data is below DIR, and made at the
# first start: the database "shelf" of the user "keeper", password "secret"; "root", who may do
# everything, comes through the socket without one. DIR/log, which is to be removed before a second
# start, tells once it is "ready for connections".
# usage: mariadb_server.sh DIR MARIADBD-OPTION...
set -eu -o pipefail
dir=$1
shift
PATH=$PATH:/usr/sbin

as=(setpriv --pdeathsig SIGKILL) # last: the system forgets it for one who becomes another user
if [ "$(id -u)" = 0 ]; then      # as whom the server refuses to run
    as+=(--reuid mysql --regid mysql --init-groups)
    chown mysql "$dir"
    chmod 755 "$dir"
fi
server=("${as[@]}" mariadbd --no-defaults --datadir="$dir/data" --tmpdir="$dir" --skip-log-bin
    --performance-schema=0 --innodb-buffer-pool-size=32M --innodb-log-file-size=8M
    --innodb-flush-log-at-trx-commit=0)

make_data() {
    "${as[@]}" mkdir -p "$dir/data"
    {
        printf '%s\n' 'create database mysql;' 'use mysql;' 'set @auth_root_socket = null;'
        cat /usr/share/mysql/mysql_{system_tables,performance_tables,system_tables_data}.sql
        printf '%s\n' 'create database shelf;' 'flush privileges;' \
            "create user keeper@'%' identified by 'secret';" 'grant all on shelf.* to keeper@"%";'
    } | "${server[@]}" --bootstrap >"$dir/log" 2>&1
}

if [ ! -e "$dir/made" ]; then
    make_data
    touch "$dir/made"
fi
[ "$(awk '{ print $4 }' /proc/$$/stat)" = "$PPID" ] || exit 1 # nobody is left to end it
exec "${server[@]}" --socket="$dir/socket" --skip-name-resolve --max-connections=50 "$@" >"$dir/log" 2>&1
