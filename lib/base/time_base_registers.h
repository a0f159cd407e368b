// SPDX-License-Identifier: Apache-2.0
/* The time base registers of a PowerPC processor; also for C. */
#ifndef UTILS_TIME_BASE_REGISTERS_H
#define UTILS_TIME_BASE_REGISTERS_H

#ifdef __powerpc__
#include <stdint.h>

/** Reads the time base registers: upper, lower, upper half again, until both upper reads agree. */
static inline uint64_t timebase_read_registers(void) {
    uint32_t upper, lower, again;
    uint64_t ticks;
    do {
        __asm__ volatile("mftbu %0\n\tmftb %1\n\tmftbu %2" : "=r"(upper), "=r"(lower), "=r"(again));
    } while (upper != again);
    ticks = upper;
    return ticks << 32 | lower;
}
#endif

#endif
