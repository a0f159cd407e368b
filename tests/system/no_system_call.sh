#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# On the target the time base, the millisecond clock and the tick counter are read without a system
# call: the emulator's trace of a program that reads each 100,000 times shows nothing between its marks.
set -euo pipefail
"$UTILS_EMULATOR" -strace "$1" >/tmp/out 2>/tmp/trace
calls=$(awk '/write\(1,.*,6\)/ {++marks; next} marks == 1 && /^[0-9]+ [a-z_0-9]+\(/ {++calls} END {print marks + 0, calls + 0}' /tmp/trace)
read -r marks count <<<"$calls"
[ "$marks" = 2 ] || { echo "no_system_call: marks not found"; head -n 50 /tmp/trace; exit 1; }
# The tick counter asks the kernel once for its anchor, at most.
[ "$count" -le 1 ] || { echo "no_system_call: $count calls"; tail -n 30 /tmp/trace; exit 1; }
echo "no_system_call: 300,000 reads of the clocks, $count system call(s)"
