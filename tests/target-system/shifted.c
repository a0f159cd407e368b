/* Runs a program whose monotonic clock comes to 2^32 ms, where 32 bits of milliseconds begin again,
   a few seconds after its start.  shifted SECONDS PROGRAM [ARG...] */
#define _GNU_SOURCE
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int count, char **words) {
    struct timespec now;
    if (count < 3 || unshare(CLONE_NEWTIME) != 0 || clock_gettime(CLOCK_MONOTONIC, &now) != 0)
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
