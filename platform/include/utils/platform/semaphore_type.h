/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file semaphore_type.h
 * @brief Platform: the semaphore record.
 *
 * A product whose semaphores look otherwise puts a header of this name in front of this one
 * (UTILS_PLATFORM_INCLUDE). Its `semaphore_t` keeps `user`, 32 bits wide, as its first member.
 */
#ifndef UTILS_PLATFORM_SEMAPHORE_TYPE_H
#define UTILS_PLATFORM_SEMAPHORE_TYPE_H

#include <pthread.h>
#include <stdint.h>

/** A semaphore; its size is the platform's. */
typedef struct semaphore {
    int32_t user;            /**< the library's word */
    int32_t value;           /**< the rest is the platform's own state */
    pthread_mutex_t lock;    /**< guards the value */
    pthread_cond_t positive; /**< signalled when the value rises */
    struct {
        int32_t waiting, woken, signalling, maker;
    } wakeups; /**< who waits for that, and who signals */
} semaphore_t;

#endif
