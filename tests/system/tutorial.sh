#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The tutorial as its reader takes it: each listing is the file that it names, and all of them work from an installed
# library: built in both ways, operated, crashed and looked at, packaged.
#   tutorial.sh SOURCE BUILD-DIRECTORY
set -euo pipefail
source=$1 build=$2 prefix=/tmp/prefix
. "$(dirname "$0")/../support/commands.sh"

installed "$build" "$prefix"
mkdir /tmp/own && cd /tmp/own
awk '/^```/ {if (on) {on = 0; close(file); file = ""; next}
             if (file == "") {print "line " FNR ": a listing without a file"; exit 1}
             on = 1; printf "" >file; next}
     on {print >file; next}
     /^`examples\/[^`]*`$/ {file = substr($0, 2, length - 2); sub(".*/", "", file); print substr($0, 2, length - 2)}' \
    "$source/docs/tutorial.md" >/tmp/listings || fail "$(tail -n 1 /tmp/listings)"
[ "$(wc -l </tmp/listings)" -ge 6 ] || fail "listings are missing"
while read -r file; do
    diff <(grep -v SPDX-License-Identifier "$source/$file") "${file##*/}" || fail "the listing of $file differs (> in the tutorial)"
    cmp "$source/$file" "$prefix/share/libutils/$file" || fail "$file is not what was installed"
done </tmp/listings

echo "add-auto-load-safe-path $prefix" >~/.gdbinit
quietly sh build.sh cmake
expect 2 '^usage: hello_daemon' build/hello_daemon --nonsense
sh build.sh
printf '\0\0\0\0\0\5\0\0\0\0\0\0' >/config/haconfig
quietly timeout 60 sh operate.sh
says '^5 +0 +hello .*running$' '^Hello, WORLD! [0-9]+ ticks so far\.$' '^tick +armed +in -?[0-9]+ ms$' ' tick 3$' 'has ended'
case $(cat /proc/sys/kernel/core_pattern) in
    [\|/]*) echo "tutorial: skipped: the core file: this machine sends core files elsewhere" ;;
    *)
        quietly timeout 60 bash crash.sh
        says '^.1 = [1-9]' '^0x[0-9a-f]+: periodic timer, armed for 100 ms, .* on_tick\(' \
            '^event log "ticks" \(ticks\): 100 entries' ' tick 1$'
        ;;
esac
if command -v dpkg-deb >/dev/null; then
    sh package.sh "$prefix/share/libutils" >/dev/null
    dpkg-deb --contents hello-daemon.deb | awk '{print $1, $2, $6}' >/tmp/out
    says '^-rwxr-xr-x root/root \./usr/sbin/hello_daemon$' '^-rw-r--r-- root/root \./usr/lib/systemd/system/hello\.service$'
else
    echo "tutorial: skipped: the package: no dpkg-deb"
fi
echo "tutorial: $(wc -l </tmp/listings) listings are their files and work"
