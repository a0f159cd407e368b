#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The steps of the demo, inside the system image.   demo_steps.sh DIRECTORY-OF-PROGRAMS
set -euo pipefail
bin=$1
PATH=$bin:$PATH
say() { echo; printf '# %s\n' "$@"; }
run() { printf '$ %s\n' "$*"; "$@"; }
await() { for ((i = 0; i < 200; ++i)); do "$@" >/dev/null 2>&1 && return; sleep 0.05; done; echo "waited in vain: $*"; return 1; }
ended() { ! kill -0 "$1" 2>/dev/null; }

# The high availability file of control processor 5: its third 16-bit word is the node.
printf '\0\0\0\0\0\5\0\0\0\0\0\0' >/config/haconfig

{ while sleep 0.1; do echo "a datagram to nobody" >/dev/udp/127.0.0.1/9; done; } 2>/dev/null &
traffic=$!
trap 'kill $(jobs -p) 2>/dev/null || true' EXIT

say "1. THE ROAD OF A TIMER EVENT" \
    "portd makes a queue, a periodic timer of 500 ms and a one-shot timer of 700 ms on it. The library's" \
    "service thread posts a 56-byte message for every expiry; portd's main loop receives it and runs the" \
    "handler, which reads /proc/net/dev. Every port that moved goes through the callback registry: its" \
    "callback writes the event log, its message comes back to the main loop, which prints the rates."
run portd -r 4

say "2. A DAEMON TO TALK TO" \
    "Another portd, for switch 3, runs until it is told to end."
portd -s 3 -p 200 >/tmp/portd.out 2>&1 &
portd=$!
await grep -q 'round 2' /tmp/portd.out
run qelctl who -s 3
run qelctl list

say "3. A REMOTE COMMAND" \
    "The tool sends one framed message over the command socket; the watch thread accepts, a thread runs the" \
    "command with the socket as its output, and the closed connection says that it has ended."
run qelctl cmd -s 3 portd help
run qelctl cmd -s 3 portd ports
run qelctl cmd -s 3 portd log | tail -n 4
say "A daemon that is silent for too long is an error of its own (exit status 3)."
status=0
run qelctl cmd -s 3 --timeout 1 portd sleep 3 || status=$?
echo "exit status $status"
[ "$status" = 3 ]

say "4. THE ROAD OF A REQUEST BETWEEN PROCESSES" \
    "qelctl packs the path into an argument block and sends it to (node, switch 3, portd). In the daemon the" \
    "handler unpacks it, points standard output and error to the file, and answers with one status word. A path" \
    "too long for a message travels in a shared memory segment, which the daemon removes."
run qelctl redirect -s 3 portd /tmp/redirected
await grep -q round /tmp/redirected
run head -n 2 /tmp/redirected
long=/tmp/$(printf './%.0s' {1..1100})redirected
qelctl redirect -s 3 portd "$long" >/dev/null
segments=$(ipcs -m | grep -c '^0x' || true)
echo "after a request of ${#long} bytes: $segments shared memory segments left"
[ "$segments" = 0 ]

say "5. STATISTICS" \
    "The daemon counts its commands and appends a report under a lock that all daemons of the switch share."
run qelctl cmd -s 3 portd stats
run qelctl stats 3
run qelctl stats 3 --plot

say "6. A DAEMON ENDS, ANOTHER IS KILLED" \
    "The first is asked to. The second is killed, and its event log is read from the dead process's trace section."
run qelctl exit -s 3 portd
await ended "$portd"
wait "$portd" && echo "portd ended with status 0"
portd -s 3 -p 100 -n victim >/tmp/victim.out 2>&1 &
victim=$!
await grep -q 'round 3' /tmp/victim.out
disown "$victim"
kill -KILL "$victim"
await ended "$victim"
run qelctl list
run qelctl evlog
qelctl evlog --pid "$victim" >/tmp/dead.log
echo "\$ qelctl evlog --pid $victim"
sed -n '1,9p' /tmp/dead.log
grep -q 'B/s' /tmp/dead.log

say "7. LOGS THAT PACK WELL" \
    "The compressed line stream codes each line against the lines before it."
for ((i = 0; i < 2000; ++i)); do echo "2026-01-01 12:00:$((i % 60)) switch portd[4711]: port $((i % 16)) online, $i frames"; done >/tmp/text.log
qelctl log pack /tmp/text.log >/tmp/packed
qelctl log unpack /tmp/packed | cmp - /tmp/text.log
echo "$(wc -c </tmp/text.log) bytes of text in $(wc -c </tmp/packed), and back again to the byte"

say "8. A TOOL THAT ASKS BACK" \
    "portshow takes its options and port arguments off the command line, and prompts for one value of each type."
"$(dirname "$0")/portshow_demo.sh" "$bin/portshow"
kill "$traffic"
