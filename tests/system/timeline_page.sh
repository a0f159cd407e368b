#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The page of a timeline in a browser without a network: what it shows of real logs, zoomed and searched, and
# that no text of a log is taken for anything but text.
#   timeline_page.sh DIRECTORY-OF-PROGRAMS
set -euo pipefail
browser=$(command -v /usr/lib/chromium/chromium || command -v chromium || true)
[ "$browser" ] || { echo "timeline_page.sh: skipped: there is no chromium"; exit 77; }
. "$(dirname "$0")/../support/commands.sh"
programs "$1" portd qelctl
{ while sleep 0.05; do echo datagram >/dev/udp/127.0.0.1/9; done; } 2>/dev/null & traffic=$!
printf '\0\0\0\0\0\5\0\0\0\0\0\0' >/config/haconfig
portd -s 7 -p 100 >/tmp/portd.out &
daemon=$!
await sh -c "qelctl evlog --daemon portd | grep -c 'lo: in' | grep -q '[2-9]'"
disown "$daemon"
kill -KILL "$daemon"
kill "$traffic"
cd /dev/shm/trace
log=$(echo "$daemon".1.*)
at=$(LC_ALL=C grep -abo -m1 'lo: in' "$log" | head -n 1 | cut -d: -f1) || fail "no events"
printf '</script><b id=x>\e\xff\n\0' | dd of="$log" bs=1 seek="$at" conv=notrunc status=none
qelctl evlog --daemon portd --timeline /tmp/page.html
! grep -qE '(src|href)=|https?:|@import|url\(' /tmp/page.html || fail "the page wants something from elsewhere"

# What a user does, done by a script behind the page's own; what it finds goes into the title.
cat >/tmp/steps.html <<'HTML'
<script>
const count = () => $("count").textContent, results = [count(), tracks.length, document.querySelectorAll("#legend input").length];
const pixels = () => [...pen.getImageData(0, 0, canvas.width, canvas.height).data].reduce((sum, part) => (sum * 31 + part) % 1000003, 0);
const whole = pixels();
const search = text => { $("search").value = text; $("search").dispatchEvent(new Event("input")); };
search("STARTED AS"); results.push(count(), $("list").rows.length, $("list").rows[0].cells[3].textContent.replace(/\d+/, "N"));
search("<\/script>"); results.push($("list").rows[0].cells[3].textContent, document.getElementById("x"));
search("");
$("list").rows[0].onclick();
for (let turn = 0; turn < 60; ++turn)
  canvas.dispatchEvent(new WheelEvent("wheel", { deltaY: -100, clientX: (gutter() + canvas.clientWidth) / 2, clientY: 40 + $("view").offsetTop }));
results.push(parseInt(count()) < events.length, pixels() !== whole);
$("all").click(); results.push(count() === results[0]);
document.querySelector("#legend input").click(); results.push(parseInt(count()) < events.length);
document.title = "RESULTS " + JSON.stringify(results);
</script>
HTML
cat /tmp/page.html /tmp/steps.html >/tmp/driven.html
timeout 300 "$browser" --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --user-data-dir=/tmp/profile \
    --window-size=1200,700 --dump-dom file:///tmp/driven.html >/tmp/dom 2>/tmp/browser.log || { cat /tmp/browser.log; fail "the browser has failed"; }
python3 - "$(qelctl evlog --json --daemon portd | python3 -c 'import json, sys; print(sum(len(log["events"]) for log in json.load(sys.stdin)["logs"]))')" <<'END'
import html, json, re, sys
found = json.loads(html.unescape(re.search("<title>RESULTS (.*?)</title>", open("/tmp/dom").read())[1]))
every = f"{sys.argv[1]} of {sys.argv[1]} events"
wanted = [every, 2, 2, f"1 of {sys.argv[1]} events", 1, "started as process N", "</script><b id=x>\\x1b\ufffd", None, True, True, True, True]
if found != wanted:
    sys.exit(f"timeline_page: found {found}\ninstead of {wanted}")
END
echo "timeline_page: zoom, search and logs of $(wc -c </tmp/page.html) bytes in $("$browser" --version 2>/dev/null)"
