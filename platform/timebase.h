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

#ifdef __powerpc__
/** Reads the time base registers: upper, lower, upper half again, until both upper reads agree. */
static inline uint64_t timebase_read_registers(void) {
    uint32_t upper, lower, again;
    do {
        __asm__ volatile("mftbu %0\n\tmftb %1\n\tmftbu %2" : "=r"(upper), "=r"(lower), "=r"(again));
    } while (upper != again);
    return ((uint64_t)upper << 32) | lower;
}
#endif

#endif
