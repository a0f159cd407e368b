/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file ioss.h
 * @brief Platform: the I/O subsystem, which can drive the timer service from a daemon's own loop.
 *
 * The subsystem calls the poll callback before it waits, and may be woken from any thread.
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

UTILS_END_DECLS

#endif
