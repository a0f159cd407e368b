/**
 * @file ioss.h
 * @brief Platform: the I/O subsystem, which can drive the timer service from a daemon's own loop.
 *
 * The library calls ioss_create() and ioss_free() only. The stand-in is a poll() loop: a daemon
 * makes one with ioss_loop_create(), hands it to timer_ioss_create() together with ioss_wake(),
 * watches its descriptors with ioss_watch() and calls ioss_run().
 */
#ifndef UTILS_PLATFORM_IOSS_H
#define UTILS_PLATFORM_IOSS_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/**
 * A poll callback: stores the descriptor it wants watched (-1: none) and the milliseconds until it
 * wants to be called again (0: no limit). @return 0
 */
typedef int (*ioss_poll)(void *arg, int32_t *descriptor, int32_t *timeout_ms);

/**
 * Registers @p poll with the I/O subsystem @p arg; the three words are reserved.
 * @return 0, or non-zero when it cannot be registered
 */
int ioss_create(void *arg, ioss_poll poll, uintptr_t, uintptr_t, uintptr_t);

/**
 * Takes back what ioss_create() registered with the subsystem @p handle. The first word of a handle
 * is never 0. @return 0
 */
int ioss_free(void *handle);

/** @name The stand-in's loop
 *  Threads: one thread runs a loop and changes its descriptors; ioss_wake() and ioss_stop() may be
 *  called from any thread. @{ */

/** A loop of the stand-in; it is the argument of ioss_create(). */
typedef struct ioss_loop ioss_loop;

/** Called by ioss_run() when @p descriptor is readable or has ended. */
typedef void (*ioss_ready)(void *arg, int descriptor);

/** @return a new loop, released by ioss_loop_destroy(), or null */
ioss_loop *ioss_loop_create(void);
/** Frees the loop; it must not run, and nobody may wake it any more. Null is ignored. */
void ioss_loop_destroy(ioss_loop *loop);
/** Watches @p descriptor (one of at most 64). @return 0, or -1 when there is no room left */
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
/** @} */

UTILS_END_DECLS

#endif
