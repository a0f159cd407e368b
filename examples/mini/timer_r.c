/* SPDX-License-Identifier: Apache-2.0 */
/* A timer of the service posts to a queue; the main loop runs its handler. */
#include <stdio.h>
#include <utils/timer_r.h>

static void on_timer(uintptr_t number, uintptr_t unused) {
    (void)unused;
    printf("timer %d fired\n", (int)number);
}

int main(void) {
    timer_message event;
    msgQHandle events = msgQCreate(4, sizeof event, 0, "events");
    timerHandle timer = timer_create_r(events, on_timer, 7, 0);
    timer_set_r(timer, 100);
    if (msgQReceive(events, &event, sizeof event, 5000) != 0)
        return 1;
    event.handler(event.arg1, event.arg2);
    timer_delete_r(timer);
    return msgQDelete(events);
}
