/* SPDX-License-Identifier: Apache-2.0 */
/* Writes a pid file and shows where the standard input of this process comes from. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <unistd.h>
#include <utils/ppname.h>

int main(void) {
    char address[16];
    if (stor_pid("mini", 0) != 0)
        return 1;
    if (ppnamePeerAddr((int)getpid(), sizeof address, address) == 0)
        printf("called on %s\n", address);
    else
        printf("not called through the network\n");
    return 0;
}
