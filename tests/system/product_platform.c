/* SPDX-License-Identifier: Apache-2.0 */
/* A product's own platform, with a semaphore and an address that look unlike the stand-in's, and a
   program that uses it through the library. What a call received is printed; the rest is bare. */
#include <semaphore.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <utils/daemon_ctl.h>
#include <utils/msgq.h>
#include <utils/platform/release.h>
#include <utils/platform/semaphore.h>
#include <utils/platform/timebase.h>
#include <utils/platform/trace.h>
#include <utils/sema.h>
#include <utils/timer_r.h>

#include "without.h"

int semaphore_init(semaphore_t *sem) {
    return sem_init(&sem->posix, 0, 1);
}
int semaphore_down(semaphore_t *sem) {
    return sem_wait(&sem->posix);
}
int semaphore_down_to(semaphore_t *sem, int ms) {
    struct timespec end;
    clock_gettime(CLOCK_REALTIME, &end);
    end.tv_sec += ms / 1000;
    return sem_timedwait(&sem->posix, &end);
}
int semaphore_up(semaphore_t *sem) {
    return sem_post(&sem->posix);
}
int semaphore_value(semaphore_t *sem) {
    int value = 0;
    sem_getvalue(&sem->posix, &value);
    return value;
}
int semaphore_count(semaphore_t *sem, int n) {
    return sem_init(&sem->posix, 0, (unsigned)n);
}
int semaphore_destroy(semaphore_t *sem) {
    return sem_destroy(&sem->posix);
}
int ipcSendRcv(void *address, int code, const void *request, uint32_t requestLength, void *reply,
               uint32_t *replyLength, const uint32_t timeout[2]) {
    const ipc_address *to = address;
    printf("request %x to node %d switch %d '%s', blade %d, %u s, %u bytes\n", (unsigned)code,
           (int)to->node, (int)to->switch_no, to->name, to->blade, timeout[0], requestLength);
    (void)request, (void)reply, (void)replyLength;
    return -1;
}
int get_release_info(int which, release_info *info) {
    (void)which, (void)info;
    return -1;
}
uint64_t timebase_read(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 200000000 + (uint64_t)now.tv_nsec / 5;
}
int trace_data_init(int *handle, int kind, unsigned size, const char *name, int section,
                    void **address, int platform_code) {
    (void)handle, (void)kind, (void)size, (void)name, (void)section, (void)address;
    (void)platform_code;
    return -1;
}
int trace_module_cleanup(int handle) {
    (void)handle;
    return 0;
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
