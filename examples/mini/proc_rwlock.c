/* SPDX-License-Identifier: Apache-2.0 */
/* Guards a file that several processes share. */
#define _POSIX_C_SOURCE 200809L
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>
#include <utils/proc_rwlock.h>

static procrwlock_t lock;

int main(void) {
    int fd = open("/tmp/counters.lock", O_RDWR | O_CREAT, 0644);
    if (procrwlock_init(&lock, fd) != 0)
        return 1;
    if (procrwlock_wrlock(&lock) != 0)
        return 1;
    puts("alone with the counters: change them");
    if (procrwlock_wrunlock(&lock) != 0 || procrwlock_rdlock(&lock) != 0)
        return 1;
    puts("among readers: look at them");
    int result = procrwlock_rdunlock(&lock);
    close(fd);
    return result == 0 ? 0 : 1;
}
