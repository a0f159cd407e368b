/* SPDX-License-Identifier: Apache-2.0 */
/* The machine's clocks in trouble.
     shifted                           the date leaps by a day, there and back, each second
     shifted SECONDS PROGRAM [ARG...]  runs a program whose monotonic clock comes to 2^32 ms, where
   32 bits of milliseconds begin again, that long after its start */
#define _GNU_SOURCE
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static int leap(void) {
    struct timespec now;
    for (int day = 86400;; day = -day) {
        sleep(1);
        clock_gettime(CLOCK_REALTIME, &now);
        now.tv_sec += day;
        if (clock_settime(CLOCK_REALTIME, &now) != 0)
            return 1;
    }
}

int main(int count, char **words) {
    struct timespec now;
    if (count < 3)
        return leap();
    if (unshare(CLONE_NEWTIME) != 0 || clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return 125;
    FILE *offsets = fopen("/proc/self/timens_offsets", "we");
    if (offsets == NULL ||
        fprintf(offsets, "monotonic %ld 0\n", 4294968 - atol(words[1]) - (long)now.tv_sec) < 0 ||
        fclose(offsets) != 0)
        return 125;
    int status = 0;
    pid_t child = fork(); /* children are in the new namespace, this process is not */
    if (child == 0) {
        execv(words[2], words + 2);
        _exit(127);
    }
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
