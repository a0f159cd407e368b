/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file ticks.h
 * @brief Tick globals: the rate of the processor's time base.
 *
 * Set when the library is loaded, before any code of the program runs, and never changed later, so
 * every thread may read them. The file "/etc/korin/tb_ticks_per_jiffy" (one native 32-bit integer)
 * gives the rate of the time base; without it,
 * 2000000 ticks a jiffy. Values beyond 32 bits are saturated.
 */
#ifndef UTILS_TICKS_H
#define UTILS_TICKS_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

extern int32_t msec_per_jiffy;     /**< milliseconds in a clock tick of the kernel */
extern int32_t tb_ticks_per_jiffy; /**< time-base ticks in a clock tick */
extern int32_t tb_ticks_p_msec;    /**< time-base ticks in a millisecond */
extern int32_t tb_ticks_p_usec;    /**< time-base ticks in a microsecond */
extern int32_t tb_ticks_p_sec;     /**< time-base ticks in a second */

UTILS_END_DECLS

#endif
