/* SPDX-License-Identifier: Apache-2.0 */
/* Times an interval with the time base, and prints dates. */
#include <stdio.h>
#include <utils/clock.h>
#include <utils/ticks.h>

int main(void) {
    perf_record record;
    perf_init(&record);
    perf_start(&record);
    char *booted = dateBooted();
    printf("up since %s", booted != NULL ? booted : "no one knows when\n");
    char now[CLOCK_TIME_ROOM];
    get_time(time(NULL), now);
    uint32_t ms = perf_stop(&record);
    printf("%s, tick %ld at %ld time-base ticks a second: that took %lu ms\n", now,
           (long)qel_times(), (long)tb_ticks_p_sec, (unsigned long)ms);
    return record.count == 1 ? 0 : 1;
}
