/* SPDX-License-Identifier: Apache-2.0 */
/* Reads the clocks many times between two marks, for a trace of its system calls. */
#include <unistd.h>
#include <utils/clock.h>
#include <utils/platform/timebase.h>

int main(void) {
    perf_record record;
    perf_init(&record);
    uint64_t first = timebase_read();
    if (write(1, "begin\n", 6) != 6)
        return 1;
    for (int i = 0; i < 100000; ++i) {
        perf_start(&record);
        if (perf_stop(&record) > 60000 || qel_times() == -1 || timebase_read() < first)
            return 1;
    }
    return write(1, "done!\n", 6) == 6 ? 0 : 1;
}
