#!/usr/bin/env bash
# Runs the example that keeps figures in a database: its rows, a server that comes late, goes and
# comes back, and what it says of bad settings.
# usage: stat_store_test.sh STAT-STORE SETTINGS MARIADB-SERVER-SCRIPT
set -u
. "$(dirname "$(realpath "$0")")/support/program_test.sh"
stat_store=$1
settings=$2
server_script=$3
dir=$(mktemp -d)
trap 'kill -9 $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$dir"' EXIT
cd "$dir" || exit 1
chmod 755 . # for the server, who runs as somebody else
mkdir db

until_true() { # WHAT COMMAND...
    local what=$1
    shift
    soon "$@" || { echo "FAILED: $what does not come"; tail -n 5 err; exit 1; }
}

start_server() {
    rm -f db/log
    "$server_script" "$dir/db" --skip-networking &
    server=$!
    until_true "the server" grep -q 'ready for connections' db/log
}

ask() { mariadb --no-defaults --user=root --socket=db/socket --batch --skip-column-names -e "$1" shelf; }
has_rows() { [ "$(ask 'select count(*) from figures')" -ge "$1" ]; }
has_said() { [ "$(grep -c "^stat-store: $2" err)" -ge "$1" ]; }

# Bad settings and usage: status 2, and the reason on standard error.
setting() { printf '%s\n' '[mysql]' 'database = shelf' "[$1]" "$2" >bad.ini; }
refused "$stat_store" 'give one settings file'
refused "$stat_store" 'give one settings file' --count 1
refused "$stat_store" 'give one settings file' "$settings" "$settings"
expected=1 refused "$stat_store" "invalid option -- 'rows'" --rows "$settings"
refused "$stat_store" '--count = "0" is not a number from 1' --count 0 "$settings"
refused "$stat_store" 'cannot read the settings in "absent.ini"' absent.ini
setting mysql 'port = 65536'; refused "$stat_store" 'mysql::port = "65536" is not a number from 0 to 65535' bad.ini
setting mysql 'table = a`b'; refused "$stat_store" 'mysql::table = "a`b" is not a name' bad.ini
setting mysql 'table ='; refused "$stat_store" 'mysql::table = "" is not a name' bad.ini
setting mysql "user = $(printf '%0512d' 0)"; refused "$stat_store" 'mysql::user is longer than 511 characters' bad.ini
setting mysql 'pass = x'; refused "$stat_store" 'there is no setting "mysql::pass"' bad.ini
setting store 'interval = 0'; refused "$stat_store" 'store::interval = "0" is not a number from 1 to 86400' bad.ini
printf '[mysql]\nuser = keeper\n' >bad.ini; refused "$stat_store" 'mysql::database is missing' bad.ini
check "--help" sh -c '"$1" --help | grep -q "^usage: stat-store"' sh "$stat_store"

# The shipped settings, for the server of this test.
sed -e 's/^database = [a-z]*/database = shelf/; s/^table = [a-z_]*/table = figures/; s/^interval = 60/interval = 1/' \
    -e "s|^socket =|socket = $dir/db/socket|; s/^user =/user = keeper/; s/^password =/password = secret/" "$settings" >own.ini

# It is there before its server, and after it.
"$stat_store" own.ini >out 2>err &
service=$!
until_true "a lost row" has_said 1 'a row is lost; the next try is in 1 s$'
check "why the first row is lost: $(head -n 1 err)" test "$(head -n 1 err)" = \
    "MySQL connect Error: Can't connect to local server through socket '$dir/db/socket' (2)"
start_server
until_true "the first rows" has_rows 2
check "that it writes" has_said 1 'writing to shelf.figures, every 1 s$'

lost=$(grep -c 'a row is lost' err)
kill $server
wait $server 2>/dev/null
until_true "rows lost without a server" has_said $((lost + 2)) 'a row is lost'
check "it runs on" kill -0 $service
start_server
before=$(ask 'select count(*) from figures')
until_true "rows behind the restart" has_rows $((before + 2))
check "that it writes again" has_said 2 'writing to shelf.figures'

# A session that somebody ends costs nothing, a table that somebody drops one row.
lost=$(grep -c 'a row is lost' err)
ask "kill $(ask "select id from information_schema.processlist where user = 'keeper'")"
before=$(ask 'select count(*) from figures')
until_true "rows of another session" has_rows $((before + 2))
check "no row lost by that" test "$(grep -c 'a row is lost' err)" = "$lost"
ask 'drop table figures'
until_true "rows of a new table" has_rows 1
check "one row lost by that" test "$(grep -c 'a row is lost' err)" = $((lost + 1))

kill $service
check "status 0 after SIGTERM" wait $service
check "its last word: $(tail -n 1 err)" test "$(tail -n 1 err)" = 'stat-store: ended by Terminated'

# A bounded run, and what its rows hold.
ask 'drop table figures'
check "a bounded run" "$stat_store" own.ini --count 2 >out 2>err
check "its word: $(cat err)" test "$(cat err)" = \
    $'stat-store: writing to shelf.figures, every 1 s\nstat-store: ended after 2 rows'
memory=$(awk '/^MemTotal:/ { print $2 }' /proc/meminfo)
swap=$(awk '/^SwapTotal:/ { print $2 }' /proc/meminfo)
check "two rows of this host: $(ask 'select * from figures')" test "$(ask "select count(*) from figures where
    host = '$(uname -n)' and abs(timestampdiff(second, taken, utc_timestamp())) < 300 and uptime > 0
    and cpu between 0 and 100 and memory between 0 and 100 and (swap is null) = ($swap = 0)
    and memory_total = $memory and memory_used between 1 and $memory
    and swap_total = $swap and swap_used <= $swap")" = 2
check "taken one after the other" test "$(ask 'select timestampdiff(second, min(taken), max(taken)) >= 0 from figures')" = 1

# A server that refuses it, for ever.
sed 's/^password = secret/password = wrong /' own.ini >wrong.ini
"$stat_store" wrong.ini >out 2>err &
service=$!
until_true "two lost rows" has_said 2 'a row is lost'
check "the reason" grep -q '^MySQL connect Error: Access denied' err
kill -INT $service
check "status 0 after SIGINT" wait $service

finish stat-store
