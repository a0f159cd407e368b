/* SPDX-License-Identifier: Apache-2.0 */
/* A program over a product's own platform, whose semaphore and address look unlike the stand-in's. What a
   request's receiver is told is printed. */
#include <stdio.h>
#include <utils/daemon_ctl.h>
#include <utils/msgq.h>
#include <utils/platform/ipc.h>
#include <utils/platform/semaphore.h>
#include <utils/sema.h>
#include <utils/timer_r.h>

/* In the place of the platform's, which knows nobody. */
int ipcSendRcv(void *address, int code, const void *request, uint32_t requestLength, void *reply,
               uint32_t *replyLength, const uint32_t timeout[2]) {
    const ipc_address *to = address;
    (void)request, (void)reply, (void)replyLength;
    return printf("request %x to node %d switch %d '%s', blade %d, %u s, %u bytes\n",
                  (unsigned)code, (int)to->node, (int)to->switch_no, to->name, to->blade,
                  timeout[0], requestLength);
}

int main(void) {
    semaHandle sem = semaCreate(SEMA_COUNTING_EMPTY);
    printf("semaphore of %u bytes: kind %d, value %d\n", (unsigned)sizeof(semaphore_t), sem->user,
           semaCount(sem));
    semaGive(sem);
    int taken = semaTake(sem, UTILS_WAIT_FOREVER);
    printf("taken: %d, value %d\n", taken, semaCount(sem));
    semaDelete(sem);
    timer_message event = {0};
    msgQHandle events = msgQCreate(2, sizeof event, 0, "events");
    timerHandle timer = timer_create_r(events, NULL, 7, 0);
    timer_set_r(timer, 60);
    int result = msgQReceive(events, &event, sizeof event, 20000);
    printf("timer: %d, argument %d\n", result, (int)event.arg1);
    qelDExitRequest("portd", 0x4402, 0);
    return 0;
}
