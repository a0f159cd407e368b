#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The built library: its exports, what it needs, its soname, its hardening and whom its calls reach.
set -euo pipefail
library=$1 map=$2/libutils.map compared=$2/compared.list companion=$3 companion_map=$4
. "$(dirname "$0")/../support/commands.sh"

# exports LIBRARY MAP VERSION FEWEST: exactly what the version script lists, each under the version.
exports() {
    exported=$(nm -D --defined-only --with-symbol-versions "$1" | awk '$2 != "A" {print $3}' | sort)
    local wanted
    wanted=$(sed -n "s/^    \([A-Za-z_0-9]*\);\$/\1@@$3/p" "$2" | sort)
    [ "$(wc -l <<<"$wanted")" -gt "$4" ] || fail "$2 cannot be read"
    diff <(echo "$wanted") <(echo "$exported") || fail "exports of $1 and its version script differ (< only in the script)"
}
exports "$companion" "$companion_map" LIBUTILS_DAEMON_1.0 20
needed=$(readelf -dW "$companion" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort | tr '\n' ' ')
[ "$needed" = "libc.so.6 libutils-platform.so.1.0 libutils.so.1.0 " ] || fail "the companion needs $needed"
exports "$library" "$map" LIBUTILS_1.0 200

dynamic=$(readelf -dW "$library")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" | sort | tr '\n' ' ')
[ "$needed" = "libc.so.6 libutils-platform.so.1.0 " ] || fail "needs $needed"
grep -q 'SONAME.*\[libutils.so.1.0\]' <<<"$dynamic" || fail "wrong soname"
grep -q 'NOW' <<<"$dynamic" || fail "does not bind at once"
headers=$(readelf -lW "$library")
grep -q GNU_RELRO <<<"$headers" || fail "no RELRO"
grep 'GNU_STACK' <<<"$headers" | grep -q 'RWE' && fail "executable stack"
# Nobody's function takes the place of ours but where programs compare addresses.
unbound=$(readelf -rW "$library" | sed -n 's/.*_JU\?MP_SLOT .* \([^@]*\)@@\?LIBUTILS_1.0.*/\1/p' |
    grep -vxF -f <(sed -n 's/^    \([a-z_]*\);$/\1/p' "$compared") || true)
[ -z "$unbound" ] || fail "calls its own" "${unbound//$'\n'/ }" "through names that programs can take"
# The target's flash and memory are small.
text=$(size "$library" | awk 'NR == 2 {print $1}')
[ "$text" -lt 131072 ] || ! readelf -h "$library" | grep -q 'Machine: *PowerPC$' || fail "$text bytes of text"
echo "library_shape: $(wc -l <<<"$exported") exports, needs $needed"
