#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a prefix of its own and lets a newcomer's program use it: the first C program
# of the README, once through pkg-config and once through find_package.
set -euo pipefail
. "$(dirname "$0")/../support/commands.sh"
source=$1 build=$2 prefix=/tmp/prefix
installed "$build" "$prefix"
mkdir /tmp/first
awk '/^```c$/ {on = 1; next} /^```$/ {if (on) exit} on' "$source/README.md" >/tmp/first/first.c
[ "$(wc -l </tmp/first/first.c)" -ge 15 ] || fail "no program in the README"

# shellcheck disable=SC2046  # the flags are words
cc -Wall -Werror -o /tmp/first/by-pkg-config /tmp/first/first.c $(pkg-config --cflags --libs libutils)
/tmp/first/by-pkg-config
# shellcheck disable=SC2046
cc -Wall -Wextra -Werror -o /tmp/first/hello "$prefix"/share/libutils/examples/hello_daemon.c $(pkg-config --cflags --libs libutils-daemon)
expect 2 '^usage: ' /tmp/first/hello --nonsense
for file in hello.{service,sysusers,tmpfiles,logrotate}; do [ -f "$prefix/share/libutils/daemon/$file" ]; done
[ -f "$prefix"/share/man/man7/libutils-daemon.7 ]

cat >/tmp/first/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(first C)
if(TREE)
    add_subdirectory(${TREE} tree)
else()
    find_package(libutils 1.0 REQUIRED COMPONENTS platform daemon)
endif()
add_executable(first first.c)
target_link_libraries(first PRIVATE utils::utils utils::utils-daemon)
CMAKE
quietly cmake -S /tmp/first -B /tmp/first/build
quietly cmake --build /tmp/first/build
/tmp/first/build/first
quietly cmake -S /tmp/first -B /tmp/first/part "-DTREE=$source"
grep -q '^UTILS_TESTS:STRING=OFF' /tmp/first/part/CMakeCache.txt || fail "as a part of another project it builds its tests"
