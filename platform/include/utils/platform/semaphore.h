/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file semaphore.h
 * @brief Platform: counting semaphores.
 *
 * The first word of the record belongs to the library and must survive every call.
 */
#ifndef UTILS_PLATFORM_SEMAPHORE_H
#define UTILS_PLATFORM_SEMAPHORE_H

#include <utils/base.h>
#include <utils/platform/semaphore_type.h>

UTILS_BEGIN_DECLS

/** Prepares the object with value 1. @return 0, or non-zero when it cannot be made */
int semaphore_init(semaphore_t *sem);
/** Waits until the value is positive, then lowers it. @return 0 */
int semaphore_down(semaphore_t *sem);
/** As semaphore_down(), giving up after @p ms milliseconds. @return 0, non-zero after the time-out
 */
int semaphore_down_to(semaphore_t *sem, int ms);
/** Raises the value and wakes one waiter. @return 0 */
int semaphore_up(semaphore_t *sem);
/** @return the current value, negative ones, too */
int semaphore_value(semaphore_t *sem);
/** Sets the value to @p n, which may be negative. @return 0 */
int semaphore_count(semaphore_t *sem, int n);
/** Releases the object's resources, not its memory. Whoever has just taken it may call this while the
 * one who raised it is still inside semaphore_up(). @return 0, or non-zero while somebody uses it
 */
int semaphore_destroy(semaphore_t *sem);

UTILS_END_DECLS

#endif
