#!/usr/bin/env bash
# Runs the example service: its log, its endings, and what it says of bad settings.
# usage: watchkeeper_test.sh WATCHKEEPER DIRECTORY_OF_ITS_FILES
set -u
. "$(dirname "$(realpath "$0")")/support/program_test.sh"
watchkeeper=$1
settings=$2/watchkeeper.ini
napper=$2/napper
dir=$(mktemp -d)
first='' second=''
trap 'kill $(jobs -p) $first $second 2>/dev/null; rm -rf "$dir"' EXIT
cd "$dir" || exit 1
mkdir log
cp "$settings" shipped.ini

# Bad settings and usage: status 2, the reason on standard error, nothing logged.
setting() { # SECTION LINE: the shipped settings with one line added
    printf '%s\n' '[log]' 'directory = log' "[$1]" "$2" >bad.ini
}
refused "$watchkeeper" 'give one settings file'
refused "$watchkeeper" 'give one settings file' shipped.ini shipped.ini
expected=1 refused "$watchkeeper" "invalid option -- 'second-guess'" --second-guess shipped.ini
expected=1 refused "$watchkeeper" "option requires an argument -- 'seconds'" shipped.ini --seconds
refused "$watchkeeper" '--seconds = "0" is not a number from 1' --seconds 0 shipped.ini
refused "$watchkeeper" 'cannot read the settings in "absent.ini"' absent.ini
refused "$watchkeeper" 'cannot read the settings in "log"' log
setting tasks 'snapshot = soon'; refused "$watchkeeper" 'tasks::snapshot = "soon" is not a number from 1 to 86400' bad.ini
setting tasks 'summary = 0'; refused "$watchkeeper" 'tasks::summary = "0" is not' bad.ini
setting tasks 'snap = 1'; refused "$watchkeeper" 'there is no setting "tasks::snap"' bad.ini
setting log 'records = 999'; refused "$watchkeeper" 'log::records = "999" is not a number from 1000 to 30000' bad.ini
setting log 'language = latin'; refused "$watchkeeper" 'neither english nor chinese' bad.ini
setting warning 'cpu = high'; refused "$watchkeeper" 'warning::cpu = "high" is not a number' bad.ini
setting cleanup '/nowhere = 90 %'; refused "$watchkeeper" 'cleanup::/nowhere is not a directory' bad.ini
setting cleanup '/tmp = 90 %, 7 weeks'; refused "$watchkeeper" 'cleanup::/tmp = "90 %, 7 weeks" is not like' bad.ini
setting remote 'listen = 7400'; refused "$watchkeeper" 'remote::listen = "7400" is not like 127.0.0.1:7400' bad.ini
setting remote 'allow = 127.0.0.1, all'; refused "$watchkeeper" 'remote::allow = "127.0.0.1, all" is not like' bad.ini
refused "$watchkeeper" '--status = "here" is not like' --status here
setting watch 'processes = /nowhere'; refused "$watchkeeper" 'watch::processes = "/nowhere" is not a file' bad.ini
setting watch 'starts = 0'; refused "$watchkeeper" 'watch::starts = "0" is not a number from 1 to 60' bad.ini
printf '[log]\ndirectory = nowhere\n' >bad.ini; refused "$watchkeeper" 'log::directory = "nowhere" is not a directory' bad.ini

check "nothing logged" test -z "$(ls log)"
check "--help" sh -c '"$1" --help | grep -q "^usage: watchkeeper"' sh "$watchkeeper"

# --set changes the settings file where its settings stand, and nothing else of it.
refused "$watchkeeper" '--set "tasks" is not like' --set tasks shipped.ini
refused "$watchkeeper" 'tasks::snapshot = "soon" is not a number' --set tasks.snapshot=soon shipped.ini
refused "$watchkeeper" 'there is no setting "tasks::snap"' --set tasks.snap=5 shipped.ini
refused "$watchkeeper" 'cannot read the settings in "absent.ini"' --set tasks.snapshot=5 absent.ini
check "an untouched file" cmp "$settings" shipped.ini
printf '%s\n' '# mine' '[warning]' 'cpu = 80   # percent' '' '[critical]' 'cpu=101' >mine.ini
check "--set" "$watchkeeper" --set warning.cpu=70 --set critical.swap=99 mine.ini --set tasks.summary=5 >out
check "what --set wrote: $(cat mine.ini)" cmp mine.ini <(printf '%s\n' '# mine' '[warning]' \
    'cpu = 70   # percent' '' '[critical]' 'cpu=101' 'swap = 99' '' '[tasks]' 'summary = 5')

# A bounded run leaves an archive with figures of this host.
sed 's/^summary = 60 /summary = 1 /' shipped.ini >busy.ini
check "a bounded run" "$watchkeeper" --seconds 4 busy.ini >reports
archive=$(ls log)
check "archived under a time stamp: $archive" grep -qxE 'watchkeeper_[0-9.]+_[0-9.]+\.log' <<<"$archive"
line='^\[[-0-9 :.]+\] \[ +(Info\.7|Warning\.5|Critical\.3)\] cpu [0-9.]+%(, cpu[0-9]+ [0-9.]+%)+; memory [0-9.]+% of [0-9.]+ GB; (no swap|swap .*); up [0-9]+d [0-9:]{8}'
check "two looks at the host" test "$(grep -cE "$line" "log/$archive")" -ge 2
check "a summary" grep -qE ' [0-9]+ looks so far; since the last summary the busiest processor was at [0-9.]+%, memory at [0-9.]+%$' "log/$archive"
check "its timer's reports" grep -q '^Start timer task' reports
check "as many processors as there are" test \
    "$(grep -E "$line" "log/$archive" | head -n 1 | grep -oE ', cpu[0-9]+' | wc -l)" = "$(grep -c ^processor /proc/cpuinfo)"
check "nothing else in it" test "$(grep -vcE "$line| looks so far| watching, every 1 s| ended after 4 seconds" "log/$archive")" = 0
rm log/*

# Thresholds choose the level.
printf '[log]\ndirectory = log\n[critical]\nmemory = 0\n' >critical.ini
check "a run at its threshold" "$watchkeeper" --seconds 2 critical.ini >reports
check "logged as Critical" grep -qE '\[ Critical\.3\] cpu ' log/*
rm log/*

# Of a directory on a full disk the oldest file goes; as root, who alone can have a disk of his own.
if [ "$(id -u)" = 0 ]; then
    cat >cleanup.sh <<'END'
mount --make-rprivate / 2>/dev/null # which a changed root refuses
mkdir full && mount -t tmpfs -o size=1m full full || exit 1
for age in 3 2 1; do
    head -c 320000 /dev/zero >full/$age
    touch -d "$age days ago" full/$age
done
"$1" --seconds 4 cleanup.ini && ls full >left
umount full
END
    printf '%s\n' '[log]' 'directory = log' '[cleanup]' 'interval = 1' "$dir/full = 90 %, 0.5 days" >cleanup.ini
    check "a clean-up" unshare --mount --propagation unchanged sh cleanup.sh "$watchkeeper" >reports
    check "its report" grep -qxF "fcleanup:remove $dir/full/3." reports
    check "the files that are left: $(cat left)" test "$(cat left)" = $'1\n2'
    check "its record" grep -qE "\[   Notice\.6\] cleaned up $dir/full: its disk was 9[0-9]% full and is 6[0-9]%" log/*
    rm log/*
fi

# It answers those whom it trusts, and sends a sign of life.
cat >ask.py <<'END'
import socket, sys
def endpoint(address):
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    made.bind((address, 0))
    made.settimeout(30)
    return made
service, beat = ("127.0.0.1", int(sys.argv[1])), endpoint("127.0.0.1")
if service[1] == 0:  # asks for two ports that are free
    free = endpoint("127.0.0.1")
    sys.exit(print(free.getsockname()[1], beat.getsockname()[1]))
beat = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
beat.bind(("127.0.0.1", int(sys.argv[2])))
beat.settimeout(30)
print("heartbeat:", beat.recv(1000).decode(), end="")
endpoint("127.0.0.2").sendto(b"ping", service)
trusted = endpoint("127.0.0.1")
for ignored in b"pin", b"ping" * 17, b"bogus":
    trusted.sendto(ignored, service)
for request in b"ping", b"rotate\n", b"status":
    trusted.sendto(request, service)
    print(trusted.recv(4096).decode(), end="")
END
read -r port beat <<<"$(python3 ask.py 0)"
printf '%s\n' '[log]' 'directory = log' '[remote]' "listen = 127.0.0.1:$port" "heartbeat = 127.0.0.1:$beat" \
    'interval = 1' '[cleanup]' 'interval = 7' '/tmp = 100 %' >remote.ini
"$watchkeeper" remote.ini >reports &
service=$!
python3 ask.py "$port" "$beat" >answers
check "a sign of life" grep -qE '^heartbeat: .+ watchkeeper up [0-9]+ s, busiest cpu [0-9.]+%, memory [0-9.]+%$' answers
check "pong and rotated" test "$(sed -n 2,3p answers)" = $'pong\nrotated'
check "bars" grep -qE '^cpu0     \[#*-*\] +[0-9.]+%$' answers
check "the requests: $(tail -n 1 answers)" test "$(tail -n 1 answers)" = 'requests: 2 answered, 4 ignored'
check "--status" "$watchkeeper" --status "127.0.0.1:$port" >status
check "the status of a running one" grep -qE '^tasks: .*clean-up of 1 directories every 7 s$' status
mkdir other
sed 's/^directory = log/directory = other/' remote.ini >taken.ini
status=0; "$watchkeeper" taken.ini >reports2 2>err || status=$?
check "status 1 and a word where the port is taken" test "$status: $(cat err)" = \
    '1: watchkeeper: cannot listen as remote::listen asks'
kill $service
check "status 0" wait $service
check "--status without a service" sh -c '! "$1" --status "127.0.0.1:$2" 2>err && grep -q "no answer" err' sh "$watchkeeper" "$port"
check "archives of rotation and end" test "$(ls log | grep -c _)" = 2
rm log/*

# It starts what it supervises, again where it is killed, and tells so.
nap=nap$$
cp "$napper" $nap
printf 'proc1 = %s, %s, %s 3600\nproc2 = absent%s\n' $nap "$dir" $nap $$ >watch.conf
read -r port beat <<<"$(python3 ask.py 0)"
printf '%s\n' '[log]' 'directory = log' '[watch]' 'processes = watch.conf' 'pause = 5' \
    '[remote]' "listen = 127.0.0.1:$port" >watch.ini
has_logged() { [ "$(grep -c "$2" log/watchkeeper.log)" -ge "$1" ]; } # COUNT TEXT
last_pid() { sed -n "s/.* $nap: running, pid //p" log/watchkeeper.log | tail -n 1; }
"$watchkeeper" watch.ini >reports &
service=$!
check "a running process" soon has_logged 1 " $nap: running, pid"
first=$(last_pid)
check "a process of that name" grep -qzxF "$dir/$nap" "/proc/$first/cmdline"
"$watchkeeper" --status "127.0.0.1:$port" >status
check "its state in the status: $(cat status)" grep -qE \
    "^$nap +running +pid $first +cpu +[0-9.]+%  memory +[0-9.]+%  up 0d 00:0[0-9]:[0-9]{2}\$" status
check "the state of one that is only watched" grep -qE "^absent$$ +not running\$" status
kill -KILL "$first"
check "a process that runs again" soon has_logged 2 " $nap: running, pid"
second=$(last_pid)
kill $service
check "status 0" wait $service
check "it leaves what it supervises running" kill -KILL "$second"
check "another process: $first, $second" test "$first" != "$second"
check "each change of state: $(grep $$: log/*)" cmp <(sed -n "s/.*\[   Notice.6\] $nap: //p" log/*) <(
    printf '%s\n' 'not running' 'starting it, and not again within 5 s' "started, pid $first" "running, pid $first" \
        stopped 'not running' 'starting it, and not again within 10 s' "started, pid $second" "running, pid $second")
check "the one that is only watched" test "$(grep -c "absent$$" log/*)" = 1
rm log/*

# What does not stay is started less and less often, and no more often in a minute than is set.
printf 'proc1 = never%s, /bin, false\n' $$ >watch.conf
printf '%s\n' '[log]' 'directory = log' '[watch]' 'processes = watch.conf' 'pause = 1' 'starts = 2' >watch.ini
check "a run with one that ends at once" "$watchkeeper" --seconds 7 watch.ini >reports
check "its starts: $(grep $$: log/*)" cmp <(sed -n "s/.*\] never$$: //p" log/*) <(printf '%s\n' 'not running' \
    'starting it, and not again within 1 s' 'Failed start.' 'starting it, and not again within 2 s' 'Failed start.')
rm log/*

# A signal ends it cleanly while it waits.
sed 's/^snapshot = 1 /snapshot = 3600 /' shipped.ini >patient.ini
for signal in TERM INT; do
    "$watchkeeper" patient.ini >reports &
    service=$!
    check "a look before SIG$signal" soon has_logged 1 'since boot'
    kill -$signal $service
    check "status 0 after SIG$signal" wait $service
    check "only the archive left after SIG$signal" test "$(ls log | grep -cv _)" = 0
    check "the ending logged after SIG$signal" grep -qE '\[   Notice\.6\] ended by ' log/*
    rm log/*
done

finish watchkeeper
