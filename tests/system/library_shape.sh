#!/usr/bin/env bash
# The built library: its exports, what it needs, its soname, its hardening and whom its calls reach.
set -euo pipefail
library=$1 map=$2/libutils.map compared=$2/compared.list
fail() { echo "library_shape: $*" >&2; exit 1; }

exported=$(nm -D --defined-only --with-symbol-versions "$library" | awk '$2 != "A" {print $3}' | sort)
wanted=$(sed -n 's/^    \([A-Za-z_0-9]*\);$/\1@@LIBUTILS_1.0/p' "$map" | sort)
[ "$(wc -l <<<"$wanted")" -gt 200 ] || fail "the version script cannot be read"
diff <(echo "$wanted") <(echo "$exported") || fail "exports and version script differ (< only in the script)"

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
