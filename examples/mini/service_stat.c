/* SPDX-License-Identifier: Apache-2.0 */
/* Service times of two requests, appended to the report of switch 0. */
#include <utils/clock.h>
#include <utils/service_stat.h>

static void served(serviceStat *stat, uint64_t ticks) {
    stat->calls++;
    stat->total_service_time += ticks;
    if (ticks > stat->highest_service_time)
        stat->highest_service_time = ticks;
    if (ticks < stat->lowest_service_time)
        stat->lowest_service_time = ticks;
}

int main(void) {
    static const char *const names[] = {"NS_QUERY", "NS_REGISTER"};
    if (serviceStat_init(2) != 0)
        return 1;
    serviceStatIsOn = 1;
    served(&serviceStats[0], 250 * (uint64_t)tb_ticks_p_usec);
    served(&serviceStats[0], 150 * (uint64_t)tb_ticks_p_usec);
    serviceStats[1].rejects++;
    serviceStat_stop("NS", names, 0);
    return serviceStats[0].calls == 0 ? 0 : 1;
}
