/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file timebase.h
 * @brief Platform: the processor's 64-bit time base.
 *
 * It runs at tb_ticks_p_sec. A program, a test for instance, may define the function itself and so
 * set the clock.
 */
#ifndef UTILS_PLATFORM_TIMEBASE_H
#define UTILS_PLATFORM_TIMEBASE_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @return the time base now; never goes back */
uint64_t timebase_read(void);

UTILS_END_DECLS

#endif
