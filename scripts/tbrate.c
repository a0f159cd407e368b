/* SPDX-License-Identifier: Apache-2.0 */
/* Measures the rate of the PowerPC time base against the monotonic clock and writes the ticks of
   one clock tick to standard output, as the system's tick file has them: one native 32-bit integer.
 */
#include <stdint.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "base/time_base_registers.h"

static int64_t now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

int main(void) {
    int64_t begin = now_ns();
    uint64_t ticks = timebase_read_registers();
    struct timespec pause = {0, 50 * 1000000};
    nanosleep(&pause, NULL);
    int64_t elapsed = now_ns() - begin;
    ticks = timebase_read_registers() - ticks;
    int64_t jiffy_ns = 1000000000 / sysconf(_SC_CLK_TCK);
    int32_t rate = (int32_t)((double)ticks * (double)jiffy_ns / (double)elapsed);
    return fwrite(&rate, sizeof rate, 1, stdout) == 1 ? 0 : 1;
}
