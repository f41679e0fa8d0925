#!/usr/bin/env bash
# Runs the example service: its log, its endings, and what it says of bad settings.
# usage: watchkeeper_test.sh WATCHKEEPER SETTINGS
set -u
watchkeeper=$1
settings=$2
dir=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$dir"' EXIT
cd "$dir" || exit 1
mkdir log
cp "$settings" shipped.ini

failed=0
check() { # WHAT COMMAND...
    local what=$1
    shift
    "$@" || { echo "FAILED: $what"; failed=1; }
}

# Bad settings and usage: status 2, the reason on standard error, nothing logged.
refused() { # TEXT ARGUMENT...
    local text=$1 status=0
    shift
    "$watchkeeper" "$@" >out 2>err || status=$?
    check "status ${expected:-2} for: $*" test "$status" = "${expected:-2}"
    check "\"$text\" for: $*, not: $(cat err)" grep -qF -- "$text" err
    check "no log for: $*" test -z "$(ls log)"
}
setting() { # SECTION LINE: the shipped settings with one line added
    printf '%s\n' '[log]' 'directory = log' "[$1]" "$2" >bad.ini
}
refused 'give one settings file'
refused 'give one settings file' shipped.ini shipped.ini
expected=1 refused "invalid option -- 'second-guess'" --second-guess shipped.ini
expected=1 refused "option requires an argument -- 'seconds'" shipped.ini --seconds
refused '--seconds = "0" is not a number from 1' --seconds 0 shipped.ini
refused 'cannot read the settings in "absent.ini"' absent.ini
refused 'cannot read the settings in "log"' log
setting tasks 'snapshot = soon'; refused 'tasks::snapshot = "soon" is not a number from 1 to 86400' bad.ini
setting tasks 'summary = 0'; refused 'tasks::summary = "0" is not' bad.ini
setting tasks 'snap = 1'; refused 'there is no setting "tasks::snap"' bad.ini
setting log 'records = 999'; refused 'log::records = "999" is not a number from 1000 to 30000' bad.ini
setting log 'language = latin'; refused 'neither english nor chinese' bad.ini
setting warning 'cpu = high'; refused 'warning::cpu = "high" is not a number' bad.ini
setting cleanup '/nowhere = 90 %'; refused 'cleanup::/nowhere is not a directory' bad.ini
setting cleanup '/tmp = 90 %, 7 weeks'; refused 'cleanup::/tmp = "90 %, 7 weeks" is not like' bad.ini
printf '[log]\ndirectory = nowhere\n' >bad.ini; refused 'log::directory = "nowhere" is not a directory' bad.ini

check "--help" sh -c '"$1" --help | grep -q "^usage: watchkeeper"' sh "$watchkeeper"

# --set changes the settings file where its settings stand, and nothing else of it.
refused '--set "tasks" is not like' --set tasks shipped.ini
refused 'tasks::snapshot = "soon" is not a number' --set tasks.snapshot=soon shipped.ini
refused 'there is no setting "tasks::snap"' --set tasks.snap=5 shipped.ini
refused 'cannot read the settings in "absent.ini"' --set tasks.snapshot=5 absent.ini
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

# A signal ends it cleanly while it waits.
sed 's/^snapshot = 1 /snapshot = 3600 /' shipped.ini >patient.ini
for signal in TERM INT; do
    "$watchkeeper" patient.ini >reports &
    service=$!
    until grep -q 'since boot' log/watchkeeper.log 2>/dev/null; do
        kill -0 $service || break
        sleep 0.05
    done
    kill -$signal $service
    check "status 0 after SIG$signal" wait $service
    check "only the archive left after SIG$signal" test "$(ls log | grep -cv _)" = 0
    check "the ending logged after SIG$signal" grep -qE '\[   Notice\.6\] ended by ' log/*
    rm log/*
done

[ $failed = 0 ] && echo "watchkeeper: all right"
exit $failed
