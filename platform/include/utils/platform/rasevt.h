/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file rasevt.h
 * @brief Platform: the RAS event log.
 */
#ifndef UTILS_PLATFORM_RASEVT_H
#define UTILS_PLATFORM_RASEVT_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** a failed check; further argument: its message (text) */
#define RASEVT_ASSERT_MESSAGE 0x0141000Du
#define RASEVT_ASSERT 0x00410005u /**< a failed ASSERT was reported */
#define RASEVT_VERIFY 0x00410004u /**< a failed VERIFY was reported */

/**
 * Logs one event. Safe to call from any thread at any time.
 * @param file     name of the reporting source file
 * @param function name of the reporting function
 * @param line     line of the call
 * @param reserved1, reserved2 0
 * @param code     what happened; decides the further arguments
 * @return 0
 */
int rasevt_log(const char *file, const char *function, int line, int reserved1, int reserved2,
               unsigned code, ...);

UTILS_END_DECLS

#endif
