#!/usr/bin/env bash
# Builds and runs the service of the guide, step by step: a step's program is every function so far with
# the step's main().
# usage: guide.sh SOURCE_DIR LIBRARY_DIR NAPPER
set -u
source=$1
library=$2
napper=$3
. "$source/tests/support/program_test.sh"
dir=$(mktemp -d)
killed=none
trap 'kill $service 2>/dev/null; pkill -f "^/*$dir/nap$$"; rm -rf "$dir"' EXIT
cd "$dir" || exit 1
mkdir log spool

port=$(python3 -c 'import socket; s = socket.socket(type=socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
block() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/{/^\`\`\`/d; p}" "$source/docs/guide.md"; }
block ini | sed "s/^port = 7400/port = $port/; s/^interval = 1000/interval = 50/; s/^usage = 90/usage = 0/" \
    >sentry.ini
name=nap$$ # nobody else's
cp "$napper" $name
echo "proc1 = $name, $dir, $name 3600" >watch.conf

# step_1.c, step_2.c, ...: a block that begins with main() ends a step.
awk '/^```c$/ { inside = 1; block = ""; next }
     /^```$/ && inside { inside = 0
         if (block ~ /^int main/) { printf "%s%s", functions, block > ("step_" ++steps ".c") }
         else functions = functions block "\n" }
     inside { block = block $0 "\n" }' "$source/docs/guide.md"

compiles() {
    cc -std=gnu11 -Wall -Wextra -Wpedantic -Werror "step_$1.c" -I"$source/include" -L"$library" -lkeel \
        -Wl,-rpath,"$library" -o sentry
}
logged() { grep -qF -- "$1" log/sentry.log; }
answers() {
    python3 -c 'import socket, sys
s = socket.socket(type=socket.SOCK_DGRAM)
s.settimeout(20)
s.sendto(b"status", ("127.0.0.1", int(sys.argv[1])))
sys.exit(not s.recv(100).startswith(b"up, "))' "$port"
}
make_spool() {
    echo young >spool/young
    echo old >spool/old
    touch -a -d '3 days ago' spool/old
}
looked_twice() { [ "$(grep -cF '% in use, up ' log/sentry.log)" -ge 2 ]; }
napping() { napper=$(pgrep -f "^/*$dir/$name") && [ "$napper" != "$killed" ]; }
cleaned_up() { [ ! -e spool/old ] && logged 'spool: the disk stays too full'; }
# A timer remarks that its producer of identifiers frees nothing; any process may have a long command line.
is_quiet() { ! grep -vE '^This is an id producer|^get_cmdline_by_pid READ: buffer too small' err; }
archived() { grep -lF -- "$1" log/sentry_*.log >/dev/null; }

check "a first step" compiles 1
./sentry sentry.ini
check "the first step's status" test $? = 0
check "the first step's archive" archived 'ending'
for step in 2 3 4 5 6; do
    rm -f log/*
    check "step $step" compiles $step
    make_spool
    ./sentry sentry.ini >out 2>err &
    service=$!
    check "step $step is up" soon logged '[   Notice.6] up'
    [ $step -lt 3 ] || check "step $step looks" soon looked_twice
    [ $step -lt 4 ] || check "step $step cleans up" soon cleaned_up
    if [ $step -ge 5 ]; then
        check "step $step supervises" soon napping
        killed=$napper
        kill "$killed"
        check "step $step starts it again" soon napping
    fi
    [ $step != 6 ] || check "step $step answers" answers
    kill -TERM "$service"
    wait "$service"
    check "step $step ends well" test $? = 0
    check "step $step says so" archived 'ending by signal 15'
    check "step $step is quiet" is_quiet
    check "step $step keeps the young" test -e spool/young
done
check "that there are six steps" test ! -e step_7.c
finish "the guide"
