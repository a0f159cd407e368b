#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Builds hello_daemon.c in the working directory, by pkg-config or, with the word cmake, by CMakeLists.txt beside it.
set -e
if [ "$1" = cmake ]; then
    cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build build
else
    # shellcheck disable=SC2046  # the flags are words
    cc -g -O2 -Wall -o hello_daemon hello_daemon.c $(pkg-config --cflags --libs libutils-daemon)
fi
