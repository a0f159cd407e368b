/* How long did it take, and when is now? */
#include <stdio.h>
#include <utils/clock.h>

int main(void) {
    perf_record work;
    perf_init(&work);
    perf_start(&work);
    char now[32];
    get_time(time(NULL), now);
    printf("%s: took %u ms, %d ticks since boot\n", now, perf_stop(&work), (int)qel_times());
    return work.count == 1 ? 0 : 1;
}
