/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file sema.h
 * @brief Binary and counting semaphores with millisecond time-outs.
 *
 * The kind is a label only: giving a binary semaphore twice leaves its value at 2.
 *
 * Threads: any thread may give or take. A deleted handle must not be used again; a null handle is
 * accepted and answered with -1 (or nothing), like a semaphore that cannot be taken.
 */
#ifndef UTILS_SEMA_H
#define UTILS_SEMA_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** The platform's semaphore object, whose first word is the kind. */
typedef struct semaphore *semaHandle;

#define SEMA_KIND_BINARY 0   /**< first word of a binary semaphore */
#define SEMA_KIND_COUNTING 1 /**< first word of a counting semaphore */

#define SEMA_EMPTY 0             /**< semaCreate(): binary, empty */
#define SEMA_FULL 1              /**< semaCreate(): binary, available */
#define SEMA_COUNTING_EMPTY (-1) /**< semaCreate(): counting, value 0 */

/**
 * Makes a semaphore.
 * @param initial 0 and 1 make a binary one that is empty or available, -1 a counting one of value
 *                0, any other number a counting one of that value (negative values included)
 * @return the handle, which semaDelete() releases, or null when memory runs out
 */
semaHandle semaCreate(int initial);

/** Destroys and frees the semaphore. Nobody may wait on it.
 * @return the platform's status, 0 on success */
int semaDelete(semaHandle sem);

/**
 * Raises the value by one and wakes one waiter.
 * @return 0, or -1 when the platform refuses
 *
 * Memory ordering: what was written before semaGive() is visible to the thread whose semaTake()
 * takes this unit, as with POSIX sem_post() and sem_wait().
 */
int semaGive(semaHandle sem);

/**
 * Waits until the value is positive and lowers it by one.
 * @param sem        the semaphore
 * @param timeout_ms milliseconds; -1 waits without limit, 0 does not wait. With 0 the look and the
 *                   take are two steps: another taker in between makes this call wait.
 * @return 0, or non-zero when the time ran out or nothing was there to take
 *
 * Memory ordering: 0 pairs with the semaGive() whose unit was taken; any other result orders
 * nothing.
 */
int semaTake(semaHandle sem, int timeout_ms);

/**
 * Gives until the value is positive, with a pause of five ticks (83 ms) after each give, so that
 * waiters leave one at a time. The semaphore is left available. @return 0
 */
int semaFlush(semaHandle sem);

/** @return the value, 0 or less while empty */
int semaCount(semaHandle sem);

/** Sets the value to @p count, or to 0 when that is negative. Ignores handles of unknown kind. */
void semaSetCount(semaHandle sem, int count);

/** Prints handle, kind and value on standard output; nothing for a null handle. */
void semaShow(semaHandle sem);

/** Not supported; prints that. @return 0 */
int semaReset(semaHandle sem);

/** Not supported; prints that. @return -1 */
int semaOwner(semaHandle sem);

UTILS_END_DECLS

#endif
