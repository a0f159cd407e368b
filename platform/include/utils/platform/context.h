/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file context.h
 * @brief Platform: the context block that every thread has.
 *
 * The stand-in keeps 32 bytes per thread that a program may set and read, a trace id for instance.
 * Message queues and timers save it and install it around the work they hand over.
 */
#ifndef UTILS_PLATFORM_CONTEXT_H
#define UTILS_PLATFORM_CONTEXT_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/**
 * Copies the calling thread's context to @p to (unless null), then makes @p from (unless null) its
 * context. Both blocks have sizeof_geps() bytes. @return 0
 */
int ep_context(const void *from, void *to);

/** @return the bytes of one saved context */
unsigned sizeof_geps(void);

UTILS_END_DECLS

#endif
