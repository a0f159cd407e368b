#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A failed check shows on the console who called it, on every processor.
#   backtrace.sh PROGRAM FRAMES   FRAMES: how many there are at least; 0 where the C library does not walk the stack
set -euo pipefail
${UTILS_EMULATOR:-} "$1" 2>/dev/null
frames=$(sed '1,/^Call backtrace:$/d' /dev/console)
if ! grep -q '^VERIFY - Failed expression: speed > 0' /dev/console || [ "$(grep -c . <<<"$frames")" -lt "$2" ]; then
    echo "backtrace: not a report with at least $2 frames:" >&2
    cat /dev/console >&2
    exit 1
fi
