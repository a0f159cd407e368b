/* SPDX-License-Identifier: Apache-2.0 */
/* Appends this process's output to a file, as a daemon does when a tool asks it to. */
#include <stdio.h>
#include <string.h>
#include <utils/daemon_ctl.h>

int main(void) {
    char line[32] = "";
    if (qelDRedirectOutput_impl("/tmp/daemon.out") != 0)
        return 1;
    printf("hello from the daemon\n");
    fflush(stdout);
    FILE *file = fopen("/tmp/daemon.out", "r");
    if (file == NULL || fgets(line, sizeof line, file) == NULL)
        return 1;
    fclose(file);
    return strcmp(line, "hello from the daemon\n") == 0 ? 0 : 1;
}
