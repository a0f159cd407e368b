#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# qelctl against real daemons: every subcommand, its exit status and its one line of error.
#   qelctl.sh DIRECTORY-OF-PROGRAMS
set -euo pipefail
. "$(dirname "$0")/../support/commands.sh"
programs "$1" qelctl portd
emulated=${UTILS_EMULATOR:+yes}
# clean FILE: nothing in it can control a terminal.
clean() { ! LC_ALL=C grep -qaP '[^\x20-\x7e\x80-\xff\n\t]' "$1" || { cat -v "$1"; fail "control characters: $1"; }; }
# begin SWITCH NAME [OPTION...]: a portd with its output in /tmp/NAME.out, and its first round; its number is in $daemon.
begin() {
    portd -s "$1" -p 100 -n "$2" "${@:3}" >"/tmp/$2.out" 2>&1 & daemon=$!
    await grep -q 'round 2' "/tmp/$2.out"
}
# one_line WHAT...: the last command has said no more.
one_line() { [ "$(wc -l </tmp/out)" = 1 ] || { cat /tmp/out; fail "more than one line: $*"; }; }
# Traffic for the daemons to see, on the loopback interface of this image.
{ while sleep 0.1; do echo datagram >/dev/udp/127.0.0.1/9; done; } 2>/dev/null &
traffic=$!
trap 'kill "$traffic"' EXIT
printf '\0\0\0\0\0\5\0\0\0\0\0\0' >/config/haconfig

# Usage: help and version everywhere, one line for a mistake.
for words in "" list cmd redirect exit evlog log "log pack" "log unpack" "log show" stats who clean; do
    # shellcheck disable=SC2086  # the words are words
    expect 0 '^Usage: ' qelctl $words --help
    # shellcheck disable=SC2086
    expect 0 '^qelctl [0-9]' qelctl $words --version
done
for words in "" nonsense "cmd" "cmd portd" "list extra" "stats 241" "cmd --timeout 0 d c" "exit --timeout 0 d" "evlog --follow --timeline x" "redirect portd"; do
    # shellcheck disable=SC2086
    expect "$([ "$words" = "redirect portd" ] && echo 4 || echo 2)" '^qelctl: ' qelctl $words
    one_line "$words"
done

# Usage errors name the word that is wrong, and numbers are bounded.
while IFS='|' read -r words wanted; do
    # shellcheck disable=SC2086
    expect 2 "^qelctl: $wanted \(see qelctl" qelctl $words
done <<'END'
lsit|qelctl has no subcommand lsit; did you mean list\?
-s 7 xyzzyx|qelctl has no subcommand xyzzyx
log pak|qelctl log has no subcommand pak; did you mean pack\?
evlog --folow|qelctl evlog has no option --folow; did you mean --follow\?
--json exit portd|qelctl exit has no option --json
--json log pack x|qelctl log pack has no option --json
log pack --json|qelctl log pack has no option --json
-s 241 list|--switch: Value 241 not in range 0 to 240
evlog --pid 99999999999|--pid: Value 99999999999 not in range 1 to 2147483647
END

# No daemon yet.
asked=("cmd -s 7 portd help" "redirect -s 7 portd /tmp/x" "exit -s 7 portd")
# shellcheck disable=SC2086
for words in "${asked[@]}"; do expect 4 'no daemon portd serves switch 7' qelctl $words; done
expect 1 'no report' qelctl stats 7
expect 1 'left no event log' qelctl evlog --pid 1
expect 0 '^switch: +7$' qelctl who -s 7
expect 0 '^switch: +7$' qelctl -s 7 who
mv /config/haconfig /config/away
expect 4 'no daemon portd' qelctl -s 7 exit portd
one_line "without a node file"
expect 0 '^node: +6 \(by default' qelctl who
mv /config/away /config/haconfig
expect 0 '^node: +5$' qelctl who

echo precious >/tmp/precious
ln -s /tmp/precious /run/korin/portd.7.table
begin 7 portd && portd=$daemon
expect 0 '^5 +7 +portd +[0-9]+ +[^ ]+ +[A-Z][a-z]{2} .* running$' qelctl list -s 7
expect 0 '^NODE' qelctl -s 8 list
! grep -q portd /tmp/out || fail "another switch's daemon is listed"
cp /var/run/portd.7.pid /tmp/pid
for state in 'running \(no pid file\)' 'running \(wrong pid file\)' running; do
    case $state in *no*) rm /var/run/portd.7.pid ;; *wrong*) echo 1 >/var/run/portd.7.pid ;; *) cp /tmp/pid /var/run/portd.7.pid ;; esac
    expect 0 " $portd .* $state\$" qelctl list
done
# One that may not be asked, one that has no such socket, and one that is there by its lock alone.
chmod 0 /run/korin/5.7.portd.ipc /run/korin/portd.7.cmd
# shellcheck disable=SC2086
for words in "${asked[@]}"; do expect 1 '^qelctl: portd: permission denied' unshare -U qelctl $words; done
expect 0 ' running( \(no pid file\))?$' unshare -U qelctl list
chmod 700 /run/korin/5.7.portd.ipc /run/korin/portd.7.cmd
mv /run/korin/portd.7.cmd /run/korin/away
expect 1 "^qelctl: portd, process $portd, runs and has no command socket\$" qelctl -s 7 cmd portd help
mv /run/korin/away /run/korin/portd.7.cmd
python3 -c 'import fcntl, time
file = open("/run/korin/locked.9.lock", "w"); fcntl.lockf(file, fcntl.LOCK_EX); print("held", flush=True); time.sleep(100)' >/tmp/locked & locker=$!
await grep -q held /tmp/locked
expect 0 "^- +9 +locked +$locker .* running \(no pid file\)\$" qelctl list
kill "$locker"
expect 0 '^ports ' qelctl cmd -s 7 portd help
# Completion, as bash asks for it; the last word has begun, or is empty for "_".
# shellcheck source=/dev/null
. "$(dirname "$0")/../../share/bash-completion/qelctl"
while IFS='|' read -r words wanted; do
    read -ra COMP_WORDS <<<"$words"
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_WORDS[COMP_CWORD]=${COMP_WORDS[COMP_CWORD]#_}
    _qelctl
    [ "${COMPREPLY[*]}" = "$wanted" ] || fail "completion of '$words': ${COMPREPLY[*]}"
done <<END
qelctl l|list log
qelctl evlog --f|--file --follow
qelctl log _|pack show unpack
qelctl -s 7 exit _|portd
qelctl exit -s 7 --a|--abort
qelctl -s 8 exit _|
qelctl -s 7 cmd portd _|events help log ports sleep stats
qelctl cmd --switch = 7 portd s|sleep stats
qelctl cmd -s 7 portd help _|
qelctl evlog --pid _|$portd
qelctl evlog --daemon p|portd
qelctl evlog --file $portd.1|$portd.1.portd.ports 1
qelctl log show /tmp/preci|/tmp/precious
END
expect 127 'unknown command' qelctl cmd -s 7 portd nonsense
expect 0 'lo +in' qelctl cmd -s 7 portd ports
[ "$(cat /tmp/precious)" = precious ] || fail "the daemon has written through a planted link"
expect 0 'round 1$' qelctl cmd -s 7 portd log
expect 0 'command help' qelctl cmd -s 7 portd events
expect 1 'not a number: --help' qelctl cmd -s 7 portd sleep --help
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
expect 1 '^qelctl: portd still writes to /tmp/moved, not to /no/such/place$' qelctl redirect -s 7 portd /no/such/place
mkdir /tmp/away && (cd /tmp/away && rmdir /tmp/away && expect 1 '^qelctl: cannot tell where' qelctl redirect -s 7 portd here)
if [ "$emulated" ]; then
    echo "qelctl.sh: skipped: redirection to a port and to a terminal: the emulator's table of connections has the machine's byte order"
else
    nc -l -s 127.0.0.1 -p 7009 </dev/null >/tmp/served & server=$!
    await grep -q ':1B61 00000000:0000 0A' /proc/net/tcp
    expect 0 'to server\(127.0.0.1\), port\(7009\)' qelctl redirect -s 7 portd 127.0.0.1:7009
    await grep -q round /tmp/served
    expect 0 'terminal /dev/pts/' script -qec 'qelctl redirect -s 7 portd' /dev/null
    wait "$server"
fi
expect 2 'not a terminal' qelctl redirect -s 7 portd

expect 0 'serviceStat.sw7' qelctl cmd -s 7 portd stats
expect 0 '^portd +help +[1-9][0-9]* +0 +0 ' qelctl stats 7
expect 0 '^portd +sleep +[0-9]+ +#+$' qelctl stats 7 --plot

printf '%-5s%-35s%8d%8d%8d%12d%12d%12d%12d%12d\n' monitoring read 3 0 0 7 8 6 0 0 portd "$(printf %036d 0)" 4 0 0 7 8 6 0 0 >/var/log/serviceStat.sw9
expect 0 '^monitoring +read +3 ' qelctl stats 9
expect 0 '^portd +0{36} +4 ' qelctl -s 9 stats

# Event logs of a living process, followed until it is dead, and of the dead one.
expect 0 '^[0-9]+ +1 +[^ ]+ +portd +ports 1 +7 +running +portd$' qelctl evlog
section=$(qelctl evlog | awk '$3 == "root" && $5 == "ports" {print $1 "." $2 "." $4 "." $5 " " $6; exit}')
touch -d 2040-01-01 "/dev/shm/trace/$section" # which 32 bits with a sign cannot tell
expect 0 'shortcut +:ports' qelctl evlog --file "$section"
says '^daemon +:portd$' '^switch +:7$' "^process +:$portd \(running\)\$" "^date +:$(date +%Y)-[0-9-]{5}( to .*)?\$" '^evt log +:ports$'
qelctl evlog --file "$section" --follow >/tmp/followed & follower=$!
qelctl evlog --daemon portd --daemon later --pid "$portd" --follow >/tmp/together & together=$!
await grep -q 'B/s' /tmp/followed
await grep -qE "^portd\[$portd\] cmds: [0-9:.]+ started" /tmp/together
begin 7 later && later=$daemon
await grep -qE "^later\[$later\] ports: " /tmp/together
cp "/dev/shm/trace/$section" /tmp/quiet
kill -STOP "$portd"
expect 3 "portd, process $portd, has not ended within 1 s" qelctl exit -s 7 --timeout 1 portd
kill -CONT "$portd"
await gone "$portd"
wait "$follower" || fail "following did not end with the process"
sort -c /tmp/followed || fail "followed events are not in order"

qelctl exit -s 7 later >/dev/null
wait "$together" || fail "following several did not end with them"
begin 7 victim && victim=$daemon
await sh -c "qelctl evlog --pid $victim | grep -q 'lo: in'"
disown "$victim"
kill -KILL "$victim"
await gone "$victim"
expect 0 'victim .* stale$' qelctl list
expect 0 'lo: in' qelctl evlog --pid "$victim"
expect 0 "^$victim +2 +[^ ]+ +portd +cmds 2 +7 +dead +victim\$" qelctl evlog
expect 4 'no daemon victim' qelctl exit -s 7 victim
head -c 200 /dev/urandom >/tmp/noise
expect 1 'not an event log' qelctl evlog --file /tmp/noise

# A daemon that is started again at once: the one that was asked ends, whatever its successor does.
(ulimit -c 0; for _ in 1 2; do portd -s 8 -p 100; done >/tmp/again.out 2>&1 || true) &
for option in --timeout=20 --abort; do
    await qelctl cmd -s 8 portd help
    expect 0 '^portd, process [0-9]+, has ended$' qelctl exit -s 8 "$option" portd
    grep -oE 'process [0-9]+' /tmp/out >>/tmp/ended
done
[ "$(sort -u /tmp/ended | wc -l)" = 2 ] || fail "the same process ended twice"

# What others have written and named: shown, but never raw, and never as root's.
cd /dev/shm/trace
own=$(echo "$victim".1.*) planted=$'4242.2.portd.x\e[2J\nroot  running'
cp "$own" "$planted"
echo junk >4242.1.portd.bad
at=$(LC_ALL=C grep -abo -m1 'lo: in' "$own" | head -n 1 | cut -d: -f1)
printf '\e[2J\xff\n' | dd of="$planted" bs=1 seek="$at" conv=notrunc status=none
touch $'/run/korin/5.9.dae\e[2Jmon.ipc'
expect 0 'dae\\x1b\[2Jmon' qelctl list && clean /tmp/out
expect 1 'no\\x1b\[2J: No such file' qelctl evlog --file $'no\e[2J' && clean /tmp/out
expect 0 'root +portd +x\\x1b\[2J\\x0aroot  running +- +dead +portd$' qelctl evlog && clean /tmp/out
expect 1 'bad: not an event log$' qelctl evlog --pid 4242 && clean /tmp/out
grep -q $'\\\\x1b\\[2J\ufffd$' /tmp/out || fail "the section behind an unreadable one is hidden"
grep -q '^owner  *:root$' /tmp/out || fail "no owner"
chown 65534 "$planted" 2>/dev/null && foreign=() || foreign=(unshare -U)
expect 1 '^nobody: owner +:nobody$' "${foreign[@]}" qelctl evlog --pid 4242
! grep -qv '^nobody: \|^qelctl: ' /tmp/out || fail "another user's line passes for root's"
cd /tmp

# JSON has the documented members, and its texts as they are, less what is not UTF-8; a timeline holds to the
# format's rules, each log a track of its own.
python3 - "$victim" <<'END' || fail "JSON"
import json, subprocess, sys
victim = int(sys.argv[1])
def run(*words): return subprocess.run(["qelctl", *words], check=False, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
def doc(*words):
    text = run(*words)
    assert text.isascii() and not any(byte < 32 and byte != 10 for byte in text), text
    return json.loads(text)
def same(found, wanted): assert found == wanted, (found, wanted)
dead, = [one for one in doc("list", "--json")["daemons"] if one["name"] == "victim"]
same({**dead, "owners": 0}, dict(name="victim", switch=7, node=5, pid=victim, owners=0, since=None, state="stale", pid_file="wrong"))
same(list(doc("--json", "who")), ["format", "node", "node_known", "peer", "switch", "slot", "pic", "firmware", "booted"])
row = doc("stats", "--json", "9")["rows"][0]
same(row, dict(service="monitoring", request="read", calls=3, rejects=0, drops=0,
               service_us=dict(average=7, highest=8, lowest=6), queue_ms=dict(average=0, highest=0)))
logs = doc("evlog", "--json")["logs"]
same({one["state"] for one in logs if one["daemon"] == "victim"}, {"dead"})
ports = doc("evlog", "--json", "--daemon", "victim")["logs"][0]
same([ports[key] for key in ("pid", "switch", "section", "name", "shortcut", "entries")], [victim, 7, 1, "ports", "ports", 200])
times = [event["time"] for event in ports["events"]]
same(times, sorted(times))
same(list(ports["events"][0]), ["time", "text"])
planted, = doc("evlog", "--json", "--pid", "4242")["logs"]
assert any(event["text"].startswith("\x1b[2J\ufffd") for event in planted["events"]), planted
packed = subprocess.run(["qelctl", "log", "pack"], input=b"one\n\xfftwo\x1b\n\nend", stdout=-1, check=True).stdout
open("/tmp/small", "wb").write(packed)
same(doc("log", "--json", "show", "/tmp/small")["lines"], ["one", "\ufffdtwo\x1b", "", "end"])

trace = json.loads(run("evlog", "--timeline", "-"))["traceEvents"]
names = {(event["name"], event["pid"], event["tid"]): event["args"]["name"] for event in trace if event["ph"] == "M"}
for event in trace:
    same([type(event[key]) for key in ("name", "ph", "pid", "tid")], [str, str, int, int])
    if event["ph"] == "M":
        assert event["name"] in ("process_name", "thread_name"), event
    else:
        same([event["ph"], event["s"], type(event["ts"]), type(event["cat"])], ["i", "t", int, str])
        assert ("process_name", event["pid"], 0) in names and names["thread_name", event["pid"], event["tid"]] == event["cat"], event
        assert event["name"].isprintable(), event
tracks = [key for key in names if key[0] == "thread_name"]
same(len(tracks), sum(1 for event in trace if event["name"] == "thread_name"))
mine = [event for event in trace if event["pid"] == victim and event["tid"] == 1 and event["ph"] == "i"]
same([[event["ts"], event["name"]] for event in mine], [[round(event["time"] * 1e6), event["text"]] for event in ports["events"]])
END

# Logs: any bytes come back, whatever their lines are like; hostile streams are refused.
{ seq 1 20000 | sed 's/^/2026-01-01 switch portd: port /'; printf 'é\0%s\n\n' "$(head -c 3000 /dev/zero | tr '\0' x)"; printf 'no end'; } >/tmp/text
{ find /var/log.host /usr/share/doc -type f -exec cat {} + 2>/dev/null || true; } | head -c 3000000 >/tmp/real
for input in /tmp/text /tmp/real /tmp/noise /dev/null; do
    qelctl log pack "$input" >/tmp/packed
    qelctl log unpack /tmp/packed | cmp - "$input" || fail "$input does not come back"
    qelctl log pack - <"$input" | cmp - /tmp/packed || fail "a pipe packs $input differently"
done
qelctl log pack /tmp/text >/tmp/packed
(($(wc -c </tmp/packed) * 5 < $(wc -c </tmp/text))) || fail "hardly compressed"
expect 0 ' : 1\)$' qelctl log show /tmp/packed
# A reader that goes away ends the command without a word, also while it waits for events.
for words in "log unpack /tmp/packed" "log show --json /tmp/packed" "evlog --file /tmp/quiet --follow"; do
    set +e
    # shellcheck disable=SC2086
    qelctl $words 2>/tmp/err | head -c 1 >/dev/null
    status=${PIPESTATUS[0]}
    set -e
    [ "$status$(cat /tmp/err)" = 141 ] || fail "a closed pipe: status $status, $(cat /tmp/err): $words"
done
grep -q '\\x00' /tmp/out || fail "show lets control characters through"
python3 - <<'END' || fail "show and a plain decoder differ"
import random, re, subprocess
text = bytes(random.Random(1).choices(b"A\n\x1b\x7f\x80\x8f\x90\x9b\x9f\xa0\xae\xbf\xc1\xc2\xe0\xe2\xed\xf0\xf4\xf5", k=30000))
packed = subprocess.run(["qelctl", "log", "pack"], input=text, stdout=-1, check=True).stdout
shown = subprocess.run(["qelctl", "log", "show"], input=packed, stdout=-1, stderr=-1, check=True).stdout
model = re.sub("[\0-\x08\x0b-\x1f\x7f-\x9f]", lambda c: f"\\x{ord(c[0]):02x}", text.decode("utf-8", "replace"))
model = re.sub("[\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069]", lambda c: f"\\u{ord(c[0]):04x}", model)
raise SystemExit(shown != model.encode())
END
head -c 5000 /tmp/packed >/tmp/short
expect 1 'frame 1: the stream ends early' qelctl log unpack /tmp/short
expect 1 'frame 1: not a compressed log' qelctl log unpack /tmp/text
expect 1 'No such file' qelctl log unpack /tmp/nowhere
# At every step on the way to enough memory: what was asked for, or one line and the status for it.
if [ -z "$emulated" ] && ! sanitized qelctl; then
    for ((kb = 4000; kb < 16000; kb += 100)); do
        status=0
        (ulimit -v "$kb" && exec qelctl evlog --pid 4242 >/tmp/out 2>/tmp/lines) || status=$?
        # Not even loaded: the loader refuses, or ends by what it does not check.
        [ "$status" = 127 ] || [ "$status$(ls /tmp/limited 2>/dev/null)" = 139 ] && continue
        [ "$status $(wc -l </tmp/lines) $(cut -c -8 /tmp/lines)" = "1 1 qelctl: " ] || { cat /tmp/lines; fail "status $status with $kb kB"; }
        cat /tmp/lines >>/tmp/limited
    done
    grep -q 'out of memory' /tmp/limited || fail "there was always enough memory"
fi
# What is left of the dead goes after it was shown; evidence and segments only when they are named.
segment() { python3 -c 'import ctypes, sys; print(ctypes.CDLL(None).shmget(int(sys.argv[1]), 4096, 0o1600))' "$1"; }
private=$(segment 0) keyed=$(segment 77)
begin 7 alive && alive=$daemon
: >/run/korin/victim.7.lock
there() { find /run/korin /var/run/ /dev/shm/trace ! -name 'alive.7.table*' | sort; } # which is always made anew
before=$(there)
expect 0 "^segment .* $private, 4096 bytes, creator [0-9]+ \(stays\)\$" qelctl clean --dry-run --logs
clean /tmp/out
! grep -qE "alive|\.lock| $keyed, " /tmp/out || { cat /tmp/out; fail "what is not a dead daemon's is shown"; }
[ "$(there)" = "$before" ] || fail "a dry run has removed something"
expect 1 "segment $keyed is not private" qelctl clean --segment "$keyed"
expect 0 '^removed 0$' qelctl clean -s 6
expect 0 '^removed 4$' qelctl -s 7 clean --segment "$private"
says ' /run/korin/5.7.victim.ipc$' ' /run/korin/victim.7.cmd$' ' /var/run/victim.7.pid$'
[ "$(there)" = "$(grep -vE '/(5.7.victim.ipc|victim.7.cmd|victim.7.pid)$' <<<"$before")" ] || fail "something else is gone"
expect 0 '^removed [1-9]' qelctl clean --logs
[ -z "$(find /dev/shm/trace -name "$victim.*")" ] || fail "the dead one's logs are still there"
expect 0 "^$alive +1 .* running +alive\$" qelctl evlog
expect 0 'has ended' qelctl exit -s 7 alive
ipcrm -m "$keyed"

qelctl list >/dev/full 2>/tmp/out && fail "a full disk goes unnoticed"
says 'cannot write'
echo "qelctl: every subcommand, $(wc -l </tmp/followed) events followed"
