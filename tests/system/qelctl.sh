#!/usr/bin/env bash
# qelctl against real daemons: every subcommand, its exit status and its one line of error.
#   qelctl.sh DIRECTORY-OF-PROGRAMS
set -euo pipefail
bin=$1
if [ -n "${UTILS_EMULATOR:-}" ]; then
    mkdir /tmp/bin
    for program in qelctl portd; do
        printf '#!/bin/sh\nexec %s %s "$@"\n' "$UTILS_EMULATOR" "$bin/$program" >"/tmp/bin/$program"
    done
    chmod +x /tmp/bin/*
    bin=/tmp/bin
fi
PATH=$bin:$PATH
fail() { echo "qelctl: $*" >&2; exit 1; }
await() { for ((i = 0; i < 400; ++i)); do "$@" >/dev/null 2>&1 && return; sleep 0.05; done; fail "waited in vain: $*"; }
gone() { ! kill -0 "$1" 2>/dev/null; }
# expect STATUS PATTERN COMMAND...: the exit status, and a line of the output (standard output and error).
expect() {
    local status=0 wanted=$1 pattern=$2
    shift 2
    "$@" >/tmp/out 2>&1 </dev/null || status=$?
    [ "$status" = "$wanted" ] || { cat /tmp/out; fail "exit status $status, not $wanted: $*"; }
    [ -z "$pattern" ] || grep -qE -- "$pattern" /tmp/out || { cat /tmp/out; fail "no line like '$pattern': $*"; }
}
# Traffic for the daemons to see, on the loopback interface of this image.
{ while sleep 0.1; do echo datagram >/dev/udp/127.0.0.1/9; done; } 2>/dev/null &
traffic=$!
trap 'kill "$traffic"' EXIT
printf '\0\0\0\0\0\5\0\0\0\0\0\0' >/config/haconfig

# Usage: help and version everywhere, one line for a mistake.
for words in "" list cmd redirect exit evlog log "log pack" "log unpack" "log show" stats who; do
    # shellcheck disable=SC2086  # the words are words
    expect 0 '^Usage: ' qelctl $words --help
    # shellcheck disable=SC2086
    expect 0 '^qelctl [0-9]' qelctl $words --version
done
for words in "" nonsense "cmd" "cmd portd" "list extra" "stats 241" "cmd --timeout 0 d c" "evlog --pid 1 --file x" "redirect portd"; do
    # shellcheck disable=SC2086
    expect "$([ "$words" = "redirect portd" ] && echo 4 || echo 2)" '^qelctl: ' qelctl $words
    [ "$(wc -l </tmp/out)" = 1 ] || fail "more than one line for: $words"
done

# No daemon yet.
expect 4 'no daemon portd serves switch 7' qelctl cmd -s 7 portd help
expect 4 'no daemon portd serves switch 7' qelctl redirect -s 7 portd /tmp/x
expect 4 'no daemon portd serves switch 7' qelctl exit -s 7 portd
expect 1 'no report' qelctl stats 7
expect 1 'left no event log' qelctl evlog --pid 1
expect 0 '^switch: +7$' qelctl who -s 7
expect 0 '^node: +5$' qelctl who

portd -s 7 -p 100 >/tmp/portd.out 2>&1 &
portd=$!
await grep -q 'round 2' /tmp/portd.out
expect 0 '^5 +7 +portd +[0-9]+ +[A-Z][a-z]{2} .* running$' qelctl list
expect 0 '^ports ' qelctl cmd -s 7 portd help
expect 0 'unknown command' qelctl cmd -s 7 portd nonsense
expect 0 'lo +in' qelctl cmd -s 7 portd ports
expect 0 'round 1$' qelctl cmd -s 7 portd log
expect 0 'command help' qelctl cmd -s 7 portd events
expect 0 'not a number: --help' qelctl cmd -s 7 portd sleep --help
expect 3 'did not answer within 1 s' qelctl cmd -s 7 --timeout 1 portd sleep 3
# One that stalls in the middle of its command stops nobody.
(exec 3<>/dev/null; sleep 3) & stalled=$!
expect 0 '^slept 0 s' qelctl cmd -s 7 portd sleep 0
kill "$stalled"
# Many at once, each answered whole.
pids=()
for ((i = 0; i < 8; ++i)); do qelctl cmd -s 7 portd help >"/tmp/help.$i" & pids+=($!); done
wait "${pids[@]}"
for ((i = 0; i < 8; ++i)); do [ "$(wc -l <"/tmp/help.$i")" = 6 ] || fail "help number $i is not whole"; done

expect 0 'Redirecting instance7 .* file /tmp/moved' qelctl redirect -s 7 portd /tmp/moved
await grep -q round /tmp/moved
expect 1 'refused to redirect' qelctl redirect -s 7 portd 127.0.0.1:9
expect 2 'not a port' qelctl redirect -s 7 portd 127.0.0.1:x
expect 2 'not a terminal' qelctl redirect -s 7 portd

expect 0 'serviceStat.sw7' qelctl cmd -s 7 portd stats
expect 0 '^portd +help +[1-9][0-9]* +0 +0 ' qelctl stats 7
expect 0 '^portd +sleep +[0-9]+ +#+$' qelctl stats 7 --plot

# Event logs of a living process, followed until it is dead, and of the dead one.
section=$(qelctl evlog | awk '$4 == "ports" {print $1 "." $2 "." $3 "." $4 " " $5; exit}')
expect 0 'shortcut +:ports' qelctl evlog --file "$section"
qelctl evlog --file "$section" --follow >/tmp/followed & follower=$!
await grep -q 'B/s' /tmp/followed
expect 0 '' qelctl exit -s 7 portd
await gone "$portd"
wait "$follower" || fail "following did not end with the process"
sort -c /tmp/followed || fail "followed events are not in order"

portd -s 7 -p 100 -n victim >/tmp/victim.out 2>&1 &
victim=$!
await grep -q 'round 3' /tmp/victim.out
disown "$victim"
kill -KILL "$victim"
await gone "$victim"
expect 0 'victim .* stale$' qelctl list
expect 0 'lo: in' qelctl evlog --pid "$victim"
expect 4 'no daemon victim' qelctl exit -s 7 victim
head -c 200 /dev/urandom >/tmp/noise
expect 1 'not an event log' qelctl evlog --file /tmp/noise

# Logs: any bytes come back, whatever their lines are like; hostile streams are refused.
{ seq 1 20000 | sed 's/^/2026-01-01 switch portd: port /'; printf 'é\0%s\n\n' "$(head -c 3000 /dev/zero | tr '\0' x)"; printf 'no end'; } >/tmp/text
for input in /tmp/text /tmp/noise /dev/null; do
    qelctl log pack "$input" >/tmp/packed
    qelctl log unpack /tmp/packed | cmp - "$input" || fail "$input does not come back"
    qelctl log pack - <"$input" | cmp - /tmp/packed || fail "a pipe packs $input differently"
done
qelctl log pack /tmp/text >/tmp/packed
(($(wc -c </tmp/packed) * 5 < $(wc -c </tmp/text))) || fail "hardly compressed"
expect 0 ' : 1\)$' qelctl log show /tmp/packed
grep -q '\\x00' /tmp/out || fail "show lets control characters through"
head -c 5000 /tmp/packed >/tmp/short
expect 1 'frame 1: the stream ends early' qelctl log unpack /tmp/short
expect 1 'frame 1: not a compressed log' qelctl log unpack /tmp/text
expect 1 'No such file' qelctl log unpack /tmp/nowhere
qelctl list >/dev/full 2>/tmp/out && fail "a full disk goes unnoticed"
grep -q 'cannot write' /tmp/out || fail "no word about the full disk"
echo "qelctl: every subcommand, $(wc -l </tmp/followed) events followed"
