#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Ends the daemon with a fault, and looks at what it had.
ulimit -c unlimited
./hello_daemon &
until qelctl cmd hello greet | grep '[1-9] ticks'; do sleep 0.1; done
kill -SEGV $!
wait $!
gdb -batch -ex backtrace -ex 'print ticks' -ex 'utils timers' -ex 'utils evlog' hello_daemon /core_files/hello/core*
