# Sourced by the tests of whole programs: checks that are told by name, and what a program refuses.
# shellcheck shell=bash
failed=0
check() { # WHAT COMMAND...
    local what=$1
    shift
    "$@" || { echo "FAILED: $what"; failed=1; }
}

# Waits until a command succeeds, a minute at the most, and no longer than the process $service is there.
service=
soon() { # COMMAND...
    local deadline=$((SECONDS + 60))
    until "$@" 2>/dev/null; do
        [ $SECONDS -lt $deadline ] && { [ -z "$service" ] || kill -0 "$service" 2>/dev/null; } || return 1
        sleep 0.05
    done
}

# A program that does not accept its arguments ends with the status $expected, or 2, and says why.
refused() { # PROGRAM TEXT ARGUMENT...
    local program=$1 text=$2 status=0
    shift 2
    "$program" "$@" >refusal.out 2>refusal || status=$?
    check "status ${expected:-2} for: $*" test "$status" = "${expected:-2}"
    check "\"$text\" for: $*, not: $(cat refusal)" grep -qF -- "$text" refusal
}

finish() { # PROGRAM
    [ $failed = 0 ] && echo "$1: all right"
    exit $failed
}
