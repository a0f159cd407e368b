#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The gdb extension on a real core file: gdb loads it together with an installed library, whose debug information
# stands apart, and what it prints is what the program had.
#   gdb_extension.sh PROGRAM BUILD-DIRECTORY
set -euo pipefail
program=$1 build=$2 prefix="/tmp/a prefix"
. "$(dirname "$0")/../support/commands.sh"

DESTDIR=/tmp/stage quietly cmake --install "$build" --prefix /opt/x
find /tmp/stage/usr/share/gdb/auto-load/opt/x -name 'libutils.so.1.0-gdb.py' | grep -q . || fail "not in gdb's data directory"
installed "$build" "$prefix" --strip
# shellcheck disable=SC2154  # installed() has found it
! readelf -S "$library" | grep -q debug_info || fail "the library is not stripped"
grep -q '/\.debug/libutils.so.1.0.debug$' "$build/install_manifest.txt" || fail "the debug information would outlive the library"
export TZ=UTC0
ulimit -c unlimited
{ "$program" >/dev/null 2>&1 || true; } 2>/dev/null
core=$(find /tmp -maxdepth 1 -name 'core*' | head -n 1)
if [ -z "$core" ]; then # the machine sends core files elsewhere
    core=/tmp/core
    gdb -q -batch -ex run -ex "generate-core-file $core" "$program" >/tmp/gdb.log 2>&1 || true
    [ -s "$core" ] || { cat /tmp/gdb.log; fail "no core file"; }
fi

debug() { # what gdb prints for its commands, the greeting left out
    local arguments=()
    for command in "$@"; do arguments+=(-ex "$command"); done
    gdb -q -nx -batch -iex "add-auto-load-safe-path $prefix" -ex 'echo ----\n' "${arguments[@]}" "$program" "$core" 2>&1 | sed '1,/^----$/d' >/tmp/out || true
}

debug 'print ports' 'utils list ports struct port' 'print damaged'
says '^\$1 = LIST of 3 = \{\[1\] = 0x' \
    '^\[2\] \{link = \{next = 0x[0-9a-f]+, previous = 0x[0-9a-f]+\}, number = 41\}$' \
    '^\$2 = LIST of 3, DAMAGED: 3 nodes can be reached'
debug 'print *events' 'print *every' 'print *once' 'print *idle' 'utils timers'
says 'queue "events": 2 of 8 queued, at most 56 bytes each, high water 2, 0 missed = \{\[0\] = "hello.*time_ms = 4711' \
    '^\$2 = periodic timer, armed for 3600000 ms, due at [0-9]+, calls on_timer\(0x7, 0x0\) by way of queue "events"$' \
    '^\$3 = one-shot timer, armed .* on_timer\(0x8, 0x9\) on the service thread$' '^\$4 = one-shot timer, idle, ' \
    '^2 armed timers$'
[[ $(</tmp/out) == *$'2 armed timers\n'*one-shot*periodic* ]] || fail "the timers are not in their order"
debug 'print *text' 'print bytes' 'print/x *table'
says '^\$1 = qelString of 20 in [0-9]+ bytes: "port 41 says \\"ready\\""$' \
    '^\$2 = Buffer with 3 of 16 bytes used = \{data = "raw"\}$' \
    '^\$3 = hash_table of 1 keys = \{\[0x4d2\] = .*0x51, 0x52'
debug 'print no_nodes' 'print *no_messages' 'print *no_text' 'print no_bytes' 'print *no_keys' 'utils evlog no_logs' 'utils evlog *no_events'
says '^\$1 = empty LIST$' '^\$2 = queue "silence": empty, none of 8 queued, ' \
    '^\$3 = empty qelString in [0-9]+ bytes$' '^\$4 = empty Buffer of 16 bytes$' '^\$5 = empty hash_table$' \
    '^no event logs: the database is empty$'
[ "$(tail -n 2 /tmp/out)" = $'event log "quiet" (quiet): 4 entries, current 0, wrapped 0\nno events' ] || fail "an empty log: $(tail -n 2 /tmp/out)"
debug 'utils evlog' 'utils evlog logs.head'
says '^event log "fabric" \(fab\): 4 entries, current 2, wrapped 1$'
[ "$(grep -oE 'event [0-9] of 6' /tmp/out | tr -dc 0-9)" = 3646566636465666 ] || { cat /tmp/out; fail "wrong events"; }
section=$(echo /dev/shm/trace/*fabri*)
cp "$section" /tmp/section
rm "$section"
debug 'utils evlog --file /tmp/section'
says '^03:14:08\.[0-9]{3} event 6 of 6$'
debug 'utils evlog'
says 'cannot be read'
debug 'utils log-cache'
says '^log cache "/tmp/subject": 32768 bytes, started again 2 times$'
[ "$(tail -n 1 /tmp/out | cut -d ' ' -f 3-)" = "line 1999 of the cache" ] || fail "the cache's last line is missing"
awk 'NR > 1 && !/^[0-9:]+ [0-9]+ line [0-9]+ of the cache$/ {bad = 1} NR > 2 && $4 != last + 1 {bad = 1}
     {last = $4} END {exit bad}' /tmp/out || fail "the cache's lines are torn or out of order"
echo "gdb_extension: lists, queues, timers, strings, tables, $(grep -c . /tmp/out) cache lines and the event log from $core"
