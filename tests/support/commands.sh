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
await() { for ((i = 0; i < 400; ++i)); do "$@" >/dev/null 2>&1 && return; sleep 0.05; done; fail "waited in vain: $*"; }
gone() { ! kill -0 "$1" 2>/dev/null; }
# expect STATUS PATTERN COMMAND...: the exit status, and a line of the output (standard output and error).
expect() {
    local status=0 wanted=$1 pattern=$2
    shift 2
    "$@" >/tmp/out 2>&1 </dev/null || status=$?
    [ "$status" = "$wanted" ] || { cat /tmp/out; fail "exit status $status, not $wanted: $*"; }
    [ -z "$pattern" ] || grep -qE -- "$pattern" /tmp/out || { cat /tmp/out; fail "no line like '$pattern': $*"; }
}
