/* SPDX-License-Identifier: Apache-2.0 */
/* hello_daemon: one timer, one event log, one command.
     hello_daemon [-s SWITCH] [-n NAME]
     qelctl cmd hello greet WORLD */
#include <stdio.h>
#include <utils/daemon.h>

static qel_evlog_handle *log_of_ticks;
static int ticks;

static void on_tick(uintptr_t unused1, uintptr_t unused2) {
    (void)unused1, (void)unused2;
    qel_evlog(log_of_ticks, "tick %d\n", ++ticks);
}

/* Runs in the loop, so that it needs no lock against on_tick(). */
static int greet(int argc, char **argv, FILE *out) {
    fprintf(out, "Hello, %s! %d ticks so far.\n", argc > 1 ? argv[1] : "operator", ticks);
    return 0;
}

static int start(void *unused) {
    (void)unused;
    timerHandle tick = daemon_new_timer("tick", 1, on_tick, 0, 0);
    return timer_set_r(tick, 100) == 0 ? 0 : daemon_refuse("timer");
}

int main(int argc, char **argv) {
    static const daemon_command commands[] = {
        {"greet", "[NAME]", "say hello", greet, DAEMON_IN_LOOP}, {NULL, NULL, NULL, NULL, 0}};
    static const daemon_log logs[] = {{"ticks", "ticks", 100, &log_of_ticks, 0},
                                      {NULL, NULL, 0, NULL, 0}};
    static const daemon_table hello = {
        .name = "hello", .version = "1.0", .commands = commands, .logs = logs, .start = start};
    return daemon_run(&hello, argc, argv);
}
