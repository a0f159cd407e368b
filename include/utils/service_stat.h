/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file service_stat.h
 * @brief Response statistics of a daemon that serves numbered requests, and their report.
 *
 * The daemon's request path fills the records itself, indexed by its own request codes, while
 * serviceStatIsOn is set. serviceStat_stop() appends them as rows to "/var/log/serviceStat.swN",
 * which all daemons of logical switch N share, and clears them.
 *
 * Threads: the table has no lock. A daemon that serves requests on several threads guards its
 * records itself, and lets no thread write them while serviceStat_stop() runs. Reports of several
 * processes never mix. Anyone who may read the report can lock it: serviceStat_stop() waits 2
 * seconds for the lock and then appends without it,
 * so that two new reports may both have a heading.
 */
#ifndef UTILS_SERVICE_STAT_H
#define UTILS_SERVICE_STAT_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** the report; a printf format of the switch number */
#define SERVICE_STAT_FILE "/var/log/serviceStat.sw%d"
#define SERVICE_STAT_UNSET UINT64_MAX /**< lowest service time before the first measurement */

/** Counters of one request code. Service times in ticks
 * of the time base, queue times in milliseconds. */
typedef struct serviceStat {
    uint64_t total_service_time;   /**< sum of the service times */
    uint64_t highest_service_time; /**< longest service time */
    uint64_t lowest_service_time;  /**< shortest service time, SERVICE_STAT_UNSET at first */
    int32_t calls;                 /**< requests served */
    int32_t rejects;               /**< requests answered with reject or busy */
    int32_t drops;                 /**< requests dropped or retried */
    uint32_t total_queue_time;     /**< sum of the waiting times */
    int32_t highest_queue_time;    /**< longest waiting time */
    uint32_t queue_samples;        /**< number of waiting times in the sum */
} serviceStat;

/** The table, one record per request code; null before serviceStat_init(). */
extern serviceStat *serviceStats;

/** Non-zero while the daemon collects; set by the daemon,
 * cleared by serviceStat_init() and serviceStat_stop(). */
extern int32_t serviceStatIsOn;

/**
 * Makes a fresh table and switches collection off. A table made before is forgotten, not freed.
 * @param count number of request codes; 0 or less gives no table
 * @return 0, or -1 when memory runs out; then there is no table
 */
int serviceStat_init(int count);

/**
 * Switches collection off, appends the report and clears the table. When the file cannot be opened,
 * or is a link of either kind or no regular file, that is printed and the counters are lost;
 * the lowest service times are 0 then, not SERVICE_STAT_UNSET.
 * @param label    name of the service, in every row; its column has 5 characters, without a blank
 *                 behind it, and a longer label moves the columns that follow
 * @param names    name of each request code, as many as the table has records
 * @param switchNo logical switch number, selects the file
 */
void serviceStat_stop(const char *label, const char *const names[], int switchNo);

UTILS_END_DECLS

#endif
