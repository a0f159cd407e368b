/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file base.h
 * @brief What every public header shares: linkage, attributes and the result codes of the library.
 *
 * Programs include the header of a family (or utils/utils.h), never this one alone.
 */
#ifndef UTILS_BASE_H
#define UTILS_BASE_H

#include <stdint.h>

/* Around the declarations of a public header: C linkage, visible in the library. */
/** @cond */
#ifdef __cplusplus
#define UTILS_BEGIN_DECLS _Pragma("GCC visibility push(default)") extern "C" {
#define UTILS_END_DECLS \
    }                   \
    _Pragma("GCC visibility pop")
#else
#define UTILS_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define UTILS_END_DECLS _Pragma("GCC visibility pop")
#endif
/** @endcond */

/** @cond A conversion inside a macro, silent under -Wold-style-cast; the type is one word. */
#ifdef __cplusplus
#define UTILS_AS(type, value) type(value)
#else
#define UTILS_AS(type, value) ((type)(value))
#endif
/** @endcond */

/** Lets the compiler check a printf-like call: position of the text,
 * of the first value (0: a va_list). */
#define UTILS_PRINTF(text, values) __attribute__((__format__(__printf__, text, values)))

/** @name Results that several families share
 *  The negative numbers are negated errno values of the target's kernel. @{ */
#define UTILS_OK 0         /**< success */
#define UTILS_ERROR (-1)   /**< failure without a code of its own */
#define UTILS_ENOENT (-2)  /**< no such thing */
#define UTILS_EAGAIN (-11) /**< not now; try again */
#define UTILS_ENOMEM (-12) /**< out of memory */
#define UTILS_EINVAL (-22) /**< invalid argument */
/** @} */

/** @name Time-outs of the tasking layer, in milliseconds
 *  @{ */
#define UTILS_WAIT_FOREVER (-1) /**< wait without limit */
#define UTILS_NO_WAIT 0         /**< do not wait */
/** @} */

#endif
