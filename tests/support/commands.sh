# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# What tests of commands share; sourced by them.

# programs DIRECTORY NAME...: NAMEs run by their plain names from here on, for another processor under its emulator.
programs() {
    local bin=$1 program
    shift
    if [ "${UTILS_EMULATOR:-}" ]; then
        mkdir /tmp/bin
        for program; do
            printf '#!/bin/sh\nexec %s %s "$@"\n' "$UTILS_EMULATOR" "$bin/$program" >"/tmp/bin/$program"
        done
        chmod +x /tmp/bin/*
        bin=/tmp/bin
    fi
    PATH=$bin:$PATH
}
fail() { echo "$(basename "$0" .sh): $*" >&2; exit 1; }
await() { for ((i = 0; i < 1200; ++i)); do "$@" >/dev/null 2>&1 && return; sleep 0.05; done; fail "waited in vain: $*"; }
# sanitized PROGRAM: all of the answer is read, since a reader that leaves early is a failure of the writer.
sanitized() { readelf -d "$(command -v "$1")" | grep -E 'NEEDED.*lib[at]san' >/dev/null; }
gone() { ! kill -0 "$1" 2>/dev/null; }
# says PATTERN...: for each a line of what the last command has printed.
says() { local pattern; for pattern; do grep -qE -- "$pattern" /tmp/out || { cat /tmp/out; fail "no line like '$pattern'"; }; done; }
# quietly COMMAND...: its output is shown when it fails.
quietly() { "$@" >/tmp/out 2>&1 || { local status=$?; cat /tmp/out; fail "exit status $status: $*"; }; }
# installed BUILD-DIRECTORY PREFIX [OPTION...]: the build, for programs that are built and run from here on.
installed() {
    quietly cmake --install "$1" --prefix "$2" "${@:3}"
    library=$(readlink -f "$(find "$2" -name libutils.so)")
    export LD_LIBRARY_PATH=${library%/*} PKG_CONFIG_PATH=${library%/*}/pkgconfig CMAKE_PREFIX_PATH=$2 PATH=$2/bin:$PATH
}
# expect STATUS PATTERN COMMAND...: the exit status, and a line of the output (standard output and error).
expect() {
    local status=0 wanted=$1 pattern=$2
    shift 2
    "$@" >/tmp/out 2>&1 </dev/null || status=$?
    [ "$status" = "$wanted" ] || { cat /tmp/out; fail "exit status $status, not $wanted: $*"; }
    [ -z "$pattern" ] || says "$pattern"
}
