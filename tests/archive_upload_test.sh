#!/usr/bin/env bash
# Runs the example that sends archived logs, against a server that cuts it short and one that does
# not: what arrives there is what is here.
# usage: archive_upload_test.sh ARCHIVE_UPLOAD WATCHKEEPER
set -u
. "$(dirname "$(realpath "$0")")/support/program_test.sh"
upload=$1
watchkeeper=$2
server=$(dirname "$(realpath "$0")")/support/ftp_server.py
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir" || exit 1
mkdir log served

# The server ends with its standard input, and so with this script, whatever becomes of that.
start_server() { # OPTION...
    : >commands
    coproc SERVER { exec "$server" served --commands commands "$@"; }
    server_process=$SERVER_PID
    read -r port <&"${SERVER[0]}" || { echo "no FTP server; is python3-pyftpdlib there?"; exit 1; }
    url=ftp://127.0.0.1:$port/logs/of%20a%20host
}
stop_server() {
    local input=${SERVER[1]}
    exec {input}>&-
    wait "$server_process"
}

expected=1
refused "$upload" 'give a directory and a URL'
refused "$upload" 'give a directory and a URL' log
refused "$upload" 'give a directory and a URL' log ftp://127.0.0.1:1 log
refused "$upload" "option requires an argument -- 'user'" log ftp://127.0.0.1:1 --user
refused "$upload" "invalid option -- 'loud'" --loud log ftp://127.0.0.1:1
refused "$upload" 'cannot read "nowhere"' nowhere ftp://127.0.0.1:1
refused "$upload" 'cannot read the password in "nowhere"' --password-file nowhere log ftp://127.0.0.1:1
check "--help" sh -c '"$1" --help | grep -q "^usage: archive-upload"' sh "$upload"

old=app_2026.11.20_23.59.59.999.log
new='my app_2026.11.21_06.12.29.047.log'
head -c 300000 /dev/urandom >"log/$old"
head -c 70000 /dev/urandom >"log/$new"
for other in app.log app_2026.11.21.log app_2026.11.21_06.12.29.047.log.gz notes; do
    echo "not an archive" >"log/$other"
done
mkdir log/app_2026.11.21_06.12.29.048.log
cp -r log before
printf 'secret\nand more\n' >password
send() {
    status=0
    "$upload" --user keeper --password-file password log "$url" >out 2>err || status=$?
    check "a calm run: $(cat err)" test ! -s err
    grep 'bytes' out >lines
}
sent() { # ARCHIVE
    cmp "log/$1" "served/logs/of a host/$1"
}
line() { # NUMBER TEXT
    check "line $1: $(sed -n "$1p" lines)" grep -qF -- "$2" <(sed -n "$1p" lines)
}

# A server that cuts the longer one short ...
start_server --after 100001
send
check "status 1 after a cut" test $status = 1
check "two lines" test "$(wc -l <lines)" = 2
line 1 "$old, 300000 bytes: "
check "not sent: $(sed -n 1p lines)" grep -qv ': sent$' <(sed -n 1p lines)
line 2 "$new, 70000 bytes: sent"
check "what was cut" test "$(stat -c %s "served/logs/of a host/$old")" = 100001
check "the shorter one" sent "$new"
stop_server

# ... and, once it does not, the rest.
start_server
send
check "status 0" test $status = 0
check "its lines" diff lines - <<END
$old, 300000 bytes: sent
$new, 70000 bytes: sent
END
check "the longer one" sent "$old"
check "the shorter one" sent "$new"
check "nothing else" test "$(ls "served/logs/of a host" | wc -l)" = 2
check "the rest alone: $(grep -E '^(STOR|APPE)' commands)" \
    test "$(grep -E '^(STOR|APPE)' commands)" = "APPE $old"
check "the user" grep -qx 'USER keeper' commands

# Once all is there, nothing is sent.
: >commands
send
check "status 0 with nothing to do" test $status = 0
check "nothing sent" sh -c '! grep -qE "^(STOR|APPE)" commands'
check "untouched logs" diff -r before log

# A wrong password, a server that is gone, and nothing to send.
echo guess >password
send
check "status 1 for a wrong password" test $status = 1
line 1 'Login denied'
stop_server
send
check "status 1 without a server" test $status = 1
line 2 "Couldn't connect"
mkdir empty
check "status 0 for an empty directory" "$upload" empty "$url" >out

# It alone loads libcurl; a program that transfers nothing does not.
check "libcurl where it is needed" grep -q libcurl <(ldd "$upload")
check "none where it is not" sh -c '! ldd "$1" | grep -q libcurl' sh "$watchkeeper"

finish archive-upload
