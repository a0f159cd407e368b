#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The store that ends a process on a failed assertion is undefined behaviour, so what each optimiser makes of it is
# looked at.
#   crash_levels.sh SOURCE COMPILER...
set -euo pipefail
cd "$1"
shift
ulimit -c 0
cat >/tmp/crash.cpp <<'PROGRAM'
#include "utils/assert.cpp"
int rasevt_log(const char *, const char *, int, int, int, unsigned, ...) { return 0; }
int main() { return do_assert("e", "f", QEL_CHECK_ASSERT); }
PROGRAM
tried=0 bad=0
for compiler; do
    command -v "$compiler" >/dev/null || continue
    for level in -O0 -O1 -O2 -O3 -Os -Ofast; do
        "$compiler" "$level" -std=gnu++20 -Iinclude -Iplatform/include -Ilib -Ilib/utils -o /tmp/crash /tmp/crash.cpp
        status=0
        shown=$({ ${UTILS_EMULATOR:+"$UTILS_EMULATOR"} /tmp/crash; } 2>/dev/null) || status=$?
        tried=$((tried + 1))
        [ "$status $shown" = "139 do_assert: forcing segv to get core file" ] ||
            { echo "crash_levels: $compiler $level: status $status, '$shown'"; bad=1; }
    done
done
[ "$tried" -gt 0 ] || { echo "crash_levels: no compiler here"; exit 77; }
echo "crash_levels: $tried programs"
exit $bad
