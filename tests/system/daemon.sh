#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Daemons of libutils-daemon as an operator meets them: started twice, beside a hung one, with a full
# /dev/shm, without rights, under a service manager, and every way to end.
#   daemon.sh DIRECTORY-OF-PROGRAMS
set -euo pipefail
. "$(dirname "$0")/../support/commands.sh"
programs "$1" qelctl portd hello_daemon
files() { (cd /run/korin && LC_ALL=C ls -d -- *"$1"* /var/run/"$1"*.pid 2>/dev/null || true) | tr '\n' ' '; }
stopped() { kill "$1"; wait "$1" || fail "the orderly end of $1 gives $?"; }
same() { [ "$1" = "$2" ] || fail "$3: '$1', not '$2'"; }
printf '\0\0\0\0\0\5\0\0\0\0\0\0' >/config/haconfig
ulimit -c 0
command -v setpriv >/dev/null && [ "$(id -u)" = 0 ] && plain=(setpriv --bounding-set=-all --inh-caps=-all) || plain=(env)

# The command line.
expect 2 '^usage: hello_daemon \[-s SWITCH\] \[-n NAME\]$' hello_daemon extra
expect 2 '^usage: portd .*-p PERIOD_MS\]$' portd -s 241
expect 2 '^usage: ' hello_daemon -n a/b
same "$(files '')" "" "a wrong command line leaves files"

# A second one, beside one that runs and beside one that hangs: nothing of the first is touched.
hello_daemon >/tmp/hello.out & hello=$!
await qelctl cmd hello version
before=$(stat -c '%n %i %Y' /run/korin/* /var/run/hello.0.pid)
expect 1 "^hello: cannot start: process $hello serves switch 0 already\$" hello_daemon
kill -STOP "$hello"
expect 1 "^hello: cannot start: process $hello serves switch 0 already\$" hello_daemon
kill -CONT "$hello"
same "$(stat -c '%n %i %Y' /run/korin/* /var/run/hello.0.pid)" "$before" "a second start touches"
same "$(stat -c %a /run/korin/{hello.0.cmd,5.0.hello.ipc} | xargs)" "600 600" "modes of the sockets"
grep -q '^0*[0-9a-f]*[89a-f]$' "/proc/$hello/coredump_filter" || fail "core files would leave the event logs out"

# What an operator can ask every daemon, and results as exit statuses.
expect 0 '^greet \[NAME\] +say hello$' qelctl cmd hello help
expect 0 '^logs \[SHORTCUT\|cache\] the event logs' qelctl cmd hello help logs
expect 1 '^no command nothing$' qelctl cmd hello help nothing
grep -q '^qelctl: hello: help gave 1$' /tmp/out || fail "the result is not told"
expect 0 '^hello 1\.0$' qelctl cmd hello version
expect 0 '^hello +0 +256 +[0-9]+ +0$' qelctl cmd hello queues
expect 0 '^tick +armed +in -?[0-9]+ ms$' qelctl cmd hello timers
await sh -c "qelctl cmd hello logs TICKS | grep -q 'tick 1\$'"
expect 1 'no log nothing' qelctl cmd hello logs nothing
expect 0 '^VmRSS:' qelctl cmd hello memory
expect 0 '^Hello, you! [0-9]+ ticks' qelctl cmd hello greet you
expect 0 '^0$' qelctl cmd hello result
expect 0 'hello .* has ended|has ended' qelctl exit hello
wait "$hello" || fail "the orderly end gives $?"
same "$(files hello)" "hello.0.lock " "left after the orderly end"

# Each way to end: the status, and what is left. The shell's own words about it are of no interest.
ends() { # SIGNAL STATUS
    local status=0
    hello_daemon -n "by$1" >/dev/null 2>&1 & local pid=$!
    await qelctl cmd "by$1" version
    kill "-$1" "$pid"
    wait "$pid" 2>/dev/null || status=$?
    same "$status $(files "by$1")" "$2 by$1.0.lock " "an end by SIG$1"
}
for end in "TERM 0" "INT 0" "HUP 0" "QUIT 3" "USR1 138" "ALRM 142" "XCPU 152" "STKFLT 134" "PROF 134"; do
    # shellcheck disable=SC2086  # the words are words
    ends $end 2>/dev/null
done
if ! sanitized hello_daemon; then
    for end in "ABRT 134" "SEGV 139" "BUS 135" "FPE 136"; do
        # shellcheck disable=SC2086
        ends $end 2>/dev/null
    done
fi
# The next start clears what a killed one has left.
hello_daemon -n killed & killed=$!
await qelctl cmd killed version
disown "$killed" && kill -KILL "$killed"
await gone "$killed"
same "$(files killed)" "/var/run/killed.0.pid 5.0.killed.ipc killed.0.cmd killed.0.lock " "left by a killed one"
hello_daemon -n killed & killed=$!
await qelctl cmd killed version
stopped "$killed"

# Without the right to write the pid file it runs without one; without that to the sockets' place it does not.
chmod 555 /run
"${plain[@]}" hello_daemon -n plain 2>/tmp/plain.err & plainly=$!
await qelctl cmd plain version
grep -q '^opening the pid file: Permission denied$' /tmp/plain.err || fail "no word about the pid file"
chmod 755 /run
stopped "$plainly"
chmod 555 /run/korin
expect 1 '^nobody: cannot start: /run/korin/nobody.0.lock: Permission denied$' "${plain[@]}" hello_daemon -n nobody
chmod 777 /run/korin
expect 1 '^nobody: cannot start: /run/korin/nobody.0.lock: Operation not permitted$' hello_daemon -n nobody
chmod 755 /run/korin
ln -s /tmp/elsewhere /run/korin/planted.0.lock
expect 1 'planted.0.lock: Too many levels' hello_daemon -n planted
[ ! -e /tmp/elsewhere ] || fail "a planted link was followed"

# A full /dev/shm: the first log that cannot be had ends the start; it does not hang.
if bwrap --dev-bind / / --size 4096 --tmpfs /dev/shm true 2>/dev/null; then
    expect 1 '^portd: cannot start: event log ports: No space left on device$' timeout 20 \
        bwrap --dev-bind / / --size 8192 --tmpfs /dev/shm bash -c 'mkdir -m 1777 /dev/shm/trace && exec portd'
    same "$(files portd)" "portd.0.lock " "left by a refused start"
else
    echo "daemon.sh: skipped: a full /dev/shm: no file system can be mounted here"
fi

# Under a service manager: ready, a watchdog that the loop feeds, the end; children do not speak for it.
socat -u UNIX-RECV:/tmp/manager OPEN:/tmp/told,creat,append & manager=$!
await test -S /tmp/manager
NOTIFY_SOCKET=/tmp/manager WATCHDOG_USEC=200000 hello_daemon -n managed & managed=$!
await grep -q 'READY=1.*WATCHDOG=1.*WATCHDOG=1' /tmp/told
stopped "$managed"
await grep -q 'STOPPING=1$' /tmp/told
kill "$manager"
echo "daemon: single, asked, ended in every way, refused where it should be"
