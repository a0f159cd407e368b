// SPDX-License-Identifier: Apache-2.0
// Semaphores with task-style time-outs over the platform's primitives. The record is the platform's
// object; its first word is ours and holds the kind, which is written after the platform has
// prepared the object.
#include "utils/sema.h"

#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "base/heap.h"
#include "utils/platform/semaphore.h"
#include "utils/task.h"

// A product's record may differ in everything but our word at its beginning.
static_assert(offsetof(semaphore_t, user) == 0 && sizeof(semaphore_t::user) == 4);

namespace utils {
namespace {

constexpr int kFlushPauseTicks = 5;

}  // namespace
}  // namespace utils

using namespace utils;

semaHandle semaCreate(int initial) {
    HeapBlock<semaphore_t> sem(allocate_zeroed<semaphore_t>());
    if (!sem || semaphore_init(sem.get()) != 0)
        return nullptr;
    bool binary = initial == SEMA_EMPTY || initial == SEMA_FULL;
    if (initial == SEMA_EMPTY || initial == SEMA_COUNTING_EMPTY)
        semaphore_down(sem.get());
    else if (!binary)
        semaphore_count(sem.get(), initial);
    sem->user = binary ? SEMA_KIND_BINARY : SEMA_KIND_COUNTING;
    return sem.release();
}

int semaDelete(semaHandle sem) {
    if (sem == nullptr)
        return UTILS_ERROR;
    int status = semaphore_destroy(sem);
    free(sem);
    return status;
}

// Kept: a binary semaphore that is given twice stands at 2.
int semaGive(semaHandle sem) {
    return sem != nullptr && semaphore_up(sem) == 0 ? UTILS_OK : UTILS_ERROR;
}

int semaTake(semaHandle sem, int timeout_ms) {
    if (sem == nullptr)
        return UTILS_ERROR;
    if (timeout_ms == UTILS_WAIT_FOREVER)
        return semaphore_down(sem);
    if (timeout_ms == UTILS_NO_WAIT)
        return semaCount(sem) > 0 ? semaphore_down(sem) : UTILS_ERROR;
    return semaphore_down_to(sem, timeout_ms);
}

int semaFlush(semaHandle sem) {
    while (sem != nullptr && semaCount(sem) <= 0) {
        semaGive(sem);
        taskDelay(kFlushPauseTicks);
    }
    return 0;
}

int semaCount(semaHandle sem) {
    return sem != nullptr ? semaphore_value(sem) : 0;
}

void semaSetCount(semaHandle sem, int count) {
    if (sem != nullptr && (sem->user == SEMA_KIND_BINARY || sem->user == SEMA_KIND_COUNTING))
        semaphore_count(sem, count < 0 ? 0 : count);
}

void semaShow(semaHandle sem) {
    if (sem == nullptr)
        return;
    printf("Semaphore Id 0x%" PRIxPTR "  ", reinterpret_cast<uintptr_t>(sem));
    if (sem->user == SEMA_KIND_BINARY)
        printf("BINARY    count: %d\n", semaCount(sem));
    else if (sem->user == SEMA_KIND_COUNTING)
        printf("COUNTING  count: %d\n", semaCount(sem));
    else
        printf("UNKNOWN\n");
}

int semaReset(semaHandle) {
    printf("semaReset - NOT SUPPORTED\n");
    return 0;
}

int semaOwner(semaHandle) {
    printf("semaOwner - NOT SUPPORTED\n");
    return UTILS_ERROR;
}
