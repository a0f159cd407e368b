#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What the documents tell to type works as it stands there, in a fresh clone: one test by hand, and a platform of one's
# own put before the stand-in. And a platform's check tells a bare one that is right from those that are not.
#   by_hand.sh SOURCE BUILD-DIRECTORY C-COMPILER
set -euo pipefail
source=$1 build=$2 compiler=$3 clone=$2/by_hand
fail() { echo "by_hand: $*" >&2; exit 1; }

rm -rf "$clone"
mkdir "$clone"
trap 'rm -rf "$clone"' EXIT
(cd "$source" && { git ls-files -z -co --exclude-standard 2>/dev/null || find . -path ./build -prune -o -type f -print0; } |
    xargs -0 cp --parents -t "$clone")
bare() { # FILE FAULT
    "$compiler" -Wall -Wextra -Werror -shared -fPIC -DPLATFORM_FAULT="$2" -I "$source/include" -I "$build/include" \
        -I "$source/platform/include" -o "$1" "$source/platform/check/bare_platform.c" -pthread
}
typed() { # DOCUMENT PATTERN: the indented lines from the first that matches to the block's end
    awk -v first="$2" '/^    / {if (on || $0 ~ first) {on = 1; print}; next} {if (on) exit}' "$source/$1"
}
bare "$clone/libproduct.so" 0
for lines in "$(typed CONTRIBUTING.md 'cmake --preset native')" "$(typed docs/porting.md 'cmake --preset native')"; do
    [ "$(wc -l <<<"$lines")" -ge 3 ] || fail "a document has lost its lines"
    (cd "$clone" && bash -euo pipefail -c "$lines") >"$clone/out" 2>&1 || { tail -n 40 "$clone/out"; fail "these lines fail: $lines"; }
    grep -qE '^\[  PASSED  \] [1-9]' "$clone/out" || { tail -n 40 "$clone/out"; fail "no test ran: $lines"; }
done

check() { # EXIT-STATUS PATTERN LIBRARY
    local status=0
    "$source/scripts/platform-check" "$build" "$3" >"$clone/out" 2>&1 || status=$?
    grep -qE "$2" "$clone/out" && [ "$status" = "$1" ] && return
    cat "$clone/out"
    fail "$3: status $status, not $1, or no '$2'"
}
check 0 '^platform-check: .* does what' "$build/lib/libutils-platform.so.1.0"
check 0 '^platform-check: .* does what' "$clone/libproduct.so"
fault=0
for named in semaphore_up semaphore_down trace_data_init timebase_read 'not exported: get_release_info$'; do
    fault=$((fault + 1))
    bare "$clone/libfault$fault.so" "$fault"
    check 1 "FAILED.*$named" "$clone/libfault$fault.so"
done
echo "by_hand: the documents' lines work, and $fault faults of a platform are named"
