/* SPDX-License-Identifier: Apache-2.0 */
/* The least that a product's platform may be: no contexts, no I/O loop, event logs on the heap, nobody to ask.
   PLATFORM_FAULT plants a fault that a check of the platform must name. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <utils/platform/release.h>
#include <utils/platform/semaphore.h>
#include <utils/platform/timebase.h>
#include <utils/platform/trace.h>

#include "without.h"

#define WAKES_NOBODY 1
#define OVERWRITES_USER 2
#define DIRTY_SECTIONS 3
#define GOES_BACK 4
#define NO_RELEASE 5
#ifndef PLATFORM_FAULT
#define PLATFORM_FAULT 0
#endif

/* One lock for all; a semaphore is the word behind the library's. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t raised = PTHREAD_COND_INITIALIZER;
static void *sections[64];

int semaphore_init(semaphore_t *sem) {
    return semaphore_count(sem, 1);
}
static int take(semaphore_t *sem, const struct timespec *end) {
    int error = 0;
    pthread_mutex_lock(&lock);
    while (sem->value <= 0 && error == 0)
        error = end != NULL ? pthread_cond_timedwait(&raised, &lock, end)
                            : pthread_cond_wait(&raised, &lock);
    if (error == 0)
        --sem->value;
    pthread_mutex_unlock(&lock);
    return error;
}
int semaphore_down(semaphore_t *sem) {
    return take(sem, NULL);
}
int semaphore_down_to(semaphore_t *sem, int ms) {
    struct timespec end;
    clock_gettime(CLOCK_REALTIME, &end);
    end.tv_nsec += (long)(ms % 1000) * 1000000;
    end.tv_sec += ms / 1000 + end.tv_nsec / 1000000000;
    end.tv_nsec %= 1000000000;
    return take(sem, &end);
}
static int set(semaphore_t *sem, int by, int to, int wake) {
    pthread_mutex_lock(&lock);
    sem->value = by != 0 ? sem->value + by : to;
    if (PLATFORM_FAULT == OVERWRITES_USER)
        sem->user = sem->value;
    if (wake)
        pthread_cond_broadcast(&raised);
    pthread_mutex_unlock(&lock);
    return 0;
}
int semaphore_up(semaphore_t *sem) {
    return set(sem, 1, 0, PLATFORM_FAULT != WAKES_NOBODY);
}
int semaphore_count(semaphore_t *sem, int n) {
    return set(sem, 0, n, 1);
}
int semaphore_value(semaphore_t *sem) {
    pthread_mutex_lock(&lock);
    int value = sem->value;
    pthread_mutex_unlock(&lock);
    return value;
}
int semaphore_destroy(semaphore_t *sem) {
    (void)sem;
    return 0;
}
int ipcSendRcv(void *address, int code, const void *request, uint32_t requestLength, void *reply,
               uint32_t *replyLength, const uint32_t timeout[2]) {
    (void)address, (void)code, (void)request, (void)requestLength, (void)reply, (void)replyLength,
        (void)timeout;
    return -ECONNREFUSED;
}
#if PLATFORM_FAULT != NO_RELEASE
int get_release_info(int which, release_info *info) {
    snprintf(info->name, sizeof info->name, "Release 1.0");
    return which;
}
#endif
uint64_t timebase_read(void) {
    static uint64_t reads;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t ticks = (uint64_t)now.tv_sec * 200000000 + (uint64_t)now.tv_nsec / 5;
    return PLATFORM_FAULT == GOES_BACK && ++reads % 8 == 0 ? ticks - 20000000 : ticks;
}
int trace_data_init(int *handle, int kind, unsigned size, const char *name, int section,
                    void **address, int platform_code) {
    (void)kind, (void)name, (void)section, (void)platform_code;
    void *memory = calloc(1, size);
    if (memory == NULL)
        return -1;
    if (PLATFORM_FAULT == DIRTY_SECTIONS)
        memset(memory, 0xEE, size);
    pthread_mutex_lock(&lock);
    for (*handle = 0; sections[*handle] != NULL;)
        ++*handle;
    *address = sections[*handle] = memory;
    pthread_mutex_unlock(&lock);
    return 0;
}
int trace_module_cleanup(int handle) {
    pthread_mutex_lock(&lock);
    free(sections[handle]);
    sections[handle] = NULL;
    pthread_mutex_unlock(&lock);
    return 0;
}
