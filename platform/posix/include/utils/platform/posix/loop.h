/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file loop.h
 * @brief The stand-in's I/O subsystem: a poll() loop.
 *
 * A daemon makes a loop with ioss_loop_create(), hands it to timer_ioss_create() together with
 * ioss_wake(), watches its descriptors with ioss_watch() and calls ioss_run().
 *
 * Threads: one thread runs a loop and changes its descriptors; ioss_wake() and ioss_stop() may be
 * called from any thread.
 */
#ifndef UTILS_PLATFORM_POSIX_LOOP_H
#define UTILS_PLATFORM_POSIX_LOOP_H

#include <utils/platform/ioss.h>

UTILS_BEGIN_DECLS

/** A loop of the stand-in; it is the argument of ioss_create(). */
typedef struct ioss_loop ioss_loop;

/** Called by ioss_run() when @p descriptor is readable or has ended. */
typedef void (*ioss_ready)(void *arg, int descriptor);

/** @return a new loop, released by ioss_loop_destroy(), or null */
ioss_loop *ioss_loop_create(void);
/** Frees the loop; it must not run, and nobody may wake it any more. Null is ignored. */
void ioss_loop_destroy(ioss_loop *loop);
/** Watches @p descriptor (one of at most 64): @p ready is called with @p arg when it is readable.
 * @return 0, or -1 when there is no room left */
int ioss_watch(ioss_loop *loop, int descriptor, ioss_ready ready, void *arg);
/** Stops watching @p descriptor; allowed inside a ready callback. */
void ioss_unwatch(ioss_loop *loop, int descriptor);
/** Lets the loop run its poll callbacks again; the wake function for timer_ioss_create(), with the
 * loop as its word. */
void ioss_wake(uintptr_t loop);
/** Ends ioss_run() after its current round, or the next one at once when none runs. */
void ioss_stop(ioss_loop *loop);
/**
 * Runs the poll callbacks, waits for descriptors and serves them, until ioss_stop() or until
 * @p limit_ms have passed (-1: no limit). @return 0, or -1 when poll() fails (see errno)
 */
int ioss_run(ioss_loop *loop, int limit_ms);

UTILS_END_DECLS

#endif
