/* SPDX-License-Identifier: Apache-2.0 */
/* A program that drives its timers itself: it sleeps until the next one is due. */
#include <poll.h>
#include <stdio.h>
#include <utils/timer.h>

static int fired;

static void on_timer(uintptr_t name, uintptr_t unused) {
    (void)unused;
    printf("%s\n", (const char *)name);
    ++fired;
}

int main(void) {
    timerHandle timer = timer_create(on_timer, (uintptr_t) "a tenth of a second has passed", 0);
    timer_set(timer, 100);
    for (int ms; (ms = timer_gettimeout()) >= 0;) {
        poll(NULL, 0, ms);
        timer_callback();
    }
    timer_delete(timer);
    return fired == 1 ? 0 : 1;
}
