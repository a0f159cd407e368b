/* SPDX-License-Identifier: Apache-2.0 */
/* A bystander: a shared library that uses the C library's timers and has never heard of ours. */
#include <signal.h>
#include <string.h>
#include <time.h>

int posix_timer_works(void);

int posix_timer_works(void) {
    struct sigevent event;
    memset(&event, 0, sizeof event);
    event.sigev_notify = SIGEV_NONE;
    timer_t timer;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0)
        return 0;
    struct itimerspec set = {{0, 0}, {100, 0}}, left;
    int works = timer_settime(timer, 0, &set, NULL) == 0 && timer_gettime(timer, &left) == 0 &&
                left.it_value.tv_sec > 90;
    return timer_delete(timer) == 0 && works;
}
