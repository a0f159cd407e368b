#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Starts the daemon, asks it, and ends it.
set -e
./hello_daemon &
until qelctl cmd hello version; do sleep 0.1; done
qelctl list
qelctl cmd hello help
qelctl cmd hello greet WORLD
qelctl cmd hello timers
qelctl cmd hello queues
until qelctl evlog --pid $! | grep 'tick 3$'; do sleep 0.1; done
qelctl exit hello
wait $!
