/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file trace.h
 * @brief Platform: trace sections, memory that outlives the process that writes it.
 */
#ifndef UTILS_PLATFORM_TRACE_H
#define UTILS_PLATFORM_TRACE_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define TRACE_KIND_EVENT_LOG 136 /**< kind of a section that holds an event log (utils/evlog.h) */

/**
 * Obtains a zero-filled section.
 * @param handle        receives the trace handle, never negative
 * @param kind          TRACE_KIND_EVENT_LOG
 * @param size          bytes wanted
 * @param name          the section's name
 * @param section       its number, 1 to 15
 * @param address       receives the section's address
 * @param platform_code the platform's code
 * @return 0, or non-zero on failure
 */
int trace_data_init(int *handle, int kind, unsigned size, const char *name, int section,
                    void **address, int platform_code);

/** Releases a section and its memory. @return 0, or non-zero for an unknown handle */
int trace_module_cleanup(int handle);

UTILS_END_DECLS

#endif
