#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a prefix of its own and lets a newcomer's program use it: the first C program
# of the README, once through pkg-config and once through find_package.
set -euo pipefail
source=$1 build=$2 prefix=/tmp/prefix
cmake --install "$build" --prefix "$prefix" >/tmp/install.log || { cat /tmp/install.log; exit 1; }
mkdir /tmp/first
awk '/^```c$/ {on = 1; next} /^```$/ {if (on) exit} on' "$source/README.md" >/tmp/first/first.c
[ "$(wc -l </tmp/first/first.c)" -ge 15 ] || { echo "install: no program in the README" >&2; exit 1; }

library=$(dirname "$(find "$prefix" -name libutils.so)")
export PKG_CONFIG_PATH=$library/pkgconfig
# shellcheck disable=SC2046  # the flags are words
cc -Wall -Werror -o /tmp/first/by-pkg-config /tmp/first/first.c $(pkg-config --cflags --libs libutils)
LD_LIBRARY_PATH=$library /tmp/first/by-pkg-config
# shellcheck disable=SC2046
cc -Wall -Wextra -Werror -o /tmp/first/hello "$prefix"/share/libutils/examples/hello_daemon.c $(pkg-config --cflags --libs libutils-daemon)
[[ $(LD_LIBRARY_PATH=$library /tmp/first/hello --nonsense 2>&1) == "usage: "* ]] || { echo "install: no hello daemon" >&2; exit 1; }
for file in hello.{service,sysusers,tmpfiles,logrotate}; do [ -f "$prefix/share/libutils/daemon/$file" ]; done
[ -f "$prefix"/share/man/man7/libutils-daemon.7 ]

cat >/tmp/first/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(first C)
find_package(libutils 1.0 REQUIRED COMPONENTS platform daemon)
add_executable(first first.c)
target_link_libraries(first PRIVATE utils::utils utils::utils-daemon)
CMAKE
cmake -S /tmp/first -B /tmp/first/build -DCMAKE_PREFIX_PATH="$prefix" >/tmp/install.log 2>&1 &&
    cmake --build /tmp/first/build >>/tmp/install.log 2>&1 || { cat /tmp/install.log; exit 1; }
/tmp/first/build/first
