/* SPDX-License-Identifier: Apache-2.0 */
/* Runs a command in a "daemon", here a thread, and shows its output. */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utils/tnet_cmd.h>

static int hello(int argc, char **argv, FILE *out) {
    return fprintf(out, "hello %s\n", argc > 1 ? argv[1] : "whoever you are");
}

static void *serve(void *socket) {
    qelTnetCmdCB(*(int *)socket, hello);
    close(*(int *)socket); /* tells the client that the command has finished */
    return NULL;
}

int main(void) {
    int ends[2];
    pthread_t daemon;
    char *command[] = {(char *)"hello", (char *)"world"};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 ||
        pthread_create(&daemon, NULL, serve, &ends[1]) != 0)
        return 1;
    qelTnetCmd(ends[0], 2, command, STDOUT_FILENO);
    close(ends[0]);
    return pthread_join(daemon, NULL);
}
