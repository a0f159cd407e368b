// SPDX-License-Identifier: Apache-2.0
// For programs that test crashes and core files: the sanitizers leave the signals to the kernel.
// Include it in one source file of a test program.
#pragma once

#define CRASH_OPTIONS "handle_segv=0:handle_abort=0:disable_coredump=0"

extern "C" {
const char *__asan_default_options() {
    return CRASH_OPTIONS;
}
const char *__tsan_default_options() {
    return CRASH_OPTIONS ":report_signal_unsafe=0";
}
const char *__ubsan_default_options() {
    return CRASH_OPTIONS;
}
}
