// SPDX-License-Identifier: Apache-2.0
// Counting semaphores: a mutex and a condition variable on the monotonic clock. Negative values are
// allowed; takers wait while the value is not positive. A taker that waits is signalled after the
// mutex is released.
#include "utils/platform/semaphore.h"

#include "base/deadline.h"
#include "base/thread.h"
#include "base/wakeups.h"

using namespace utils;

int semaphore_init(semaphore_t *sem) {
    if (int error = init_monotonic(&sem->positive); error != 0)
        return error;
    sem->value = 1;
    sem->wakeups = {0, 0, 0, getpid()};
    int error = init_mutex(&sem->lock);
    if (error != 0)
        pthread_cond_destroy(&sem->positive);
    return error;
}

int semaphore_down(semaphore_t *sem) {
    RecordLock lock(sem->lock);
    while (sem->value <= 0)
        counted_wait(sem->wakeups, [=] { return pthread_cond_wait(&sem->positive, &sem->lock); });
    --sem->value;
    return 0;
}

int semaphore_down_to(semaphore_t *sem, int ms) {
    timespec deadline = deadline_after(ms);
    auto wait = [&] { return pthread_cond_timedwait(&sem->positive, &sem->lock, &deadline); };
    RecordLock lock(sem->lock);
    while (sem->value <= 0) {
        if (int error = counted_wait(sem->wakeups, wait); error != 0)
            return error;
    }
    --sem->value;
    return 0;
}

int semaphore_up(semaphore_t *sem) {
    pthread_mutex_lock(&sem->lock);
    ++sem->value;
    unlock_and_wake(sem->lock, sem->positive, sem->wakeups);
    return 0;
}

int semaphore_value(semaphore_t *sem) {
    RecordLock lock(sem->lock);
    return sem->value;
}

int semaphore_count(semaphore_t *sem, int n) {
    RecordLock lock(sem->lock);
    sem->value = n;
    pthread_cond_broadcast(&sem->positive);
    return 0;
}

int semaphore_destroy(semaphore_t *sem) {
    await_signallers(sem->wakeups);
    pthread_cond_destroy(&sem->positive);
    return pthread_mutex_destroy(&sem->lock);
}
