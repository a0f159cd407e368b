/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file clock.h
 * @brief Cheap counters from the time base, dates and interval statistics.
 *
 * The millisecond and tick counters read the processor's time base and make no system call.
 *
 * Threads: no locks. dateCurrent(), dateBooted(), dateBootProm(), dateFirmwareLoaded() and
 * getFirmwareVersion() return static text that the next call overwrites; call them from one thread.
 * qel_times() may be called from several threads. A perf_record belongs to one thread at a time.
 */
#ifndef UTILS_CLOCK_H
#define UTILS_CLOCK_H

#include <sys/time.h>
#include <time.h>
#include <utils/base.h>
#include <utils/ticks.h>

UTILS_BEGIN_DECLS

/** Interval statistics; all times in milliseconds. */
typedef struct perf_record {
    uint32_t start; /**< clock at perf_start() */
    uint32_t max;   /**< longest interval, 0 when unset */
    uint32_t min;   /**< shortest interval, 0 when unset */
    uint32_t total; /**< sum of the intervals */
    uint32_t count; /**< number of intervals */
} perf_record;

#define CLOCK_TIME_ROOM 26    /**< room for the text of get_time(), its terminator included */
#define CLOCK_MS_TIME_ROOM 32 /**< room for the text of get_ms_time(), its terminator included */

/** @return 1 when @p x is non-zero, else 0 */
int sysProbe(uintptr_t x);

/** @return the date now as ctime() writes it, with its newline; static text */
char *dateCurrent(void);

/**
 * @return the date of the last boot as ctime() writes it, or null when "/proc/uptime" cannot tell
 * or says that the boot lies before the clock's beginning; static text
 */
char *dateBooted(void);

/**
 * Asks the package manager, through a shell.
 * @return the first line of its answer about the boot PROM package, at most 199 characters with the
 *         line end if there is one; empty when it answers nothing, null when the query cannot
 * start; static text of its own
 */
char *dateBootProm(void);

/** As dateBootProm(), about the firmware package; static text of its own. */
char *dateFirmwareLoaded(void);

/** @return the firmware version, "v3.2.0" for instance, or null when the platform has no release
 * record; static text */
char *getFirmwareVersion(void);

/**
 * Sets the peer control processor's date from this one's, and lets it write its hardware clock. Two
 * remote commands, through a shell, over the internal network: its addresses are set when the
 * library is built (UTILS_NODE5_ADDRESS, 127.0.5.1 when not set, and UTILS_NODE6_ADDRESS,
 * 127.0.6.1). The second is not run when system() answers -1 or 1 to the first.
 * @return the status of the second command as system() gives it, or -1 when it was not run
 */
int syncDateAndTime(void);

/** @return milliseconds of the wall clock; wraps after 2^32 ms */
uint32_t msSysClk(void);

/** Not ported; prints that. @return 0 */
int msClock(void);

/** Not ported; prints that. @return the print's result */
int rtClock(void);

/** @cond On a 32-bit host the exported functions take 32 bits of seconds,
 * whatever time_t a program chose. */
#if defined(__TIMESIZE) && __TIMESIZE == 32 && defined(__USE_TIME_BITS64)
#define UTILS_TIME_NARROWED
typedef struct utils_timeval32 {
    uint32_t tv_sec;
    int32_t tv_usec;
} utils_timeval32;
int utils_get_time32(uint32_t seconds, char *text) __asm__("get_time");
int utils_get_ms_time32(const utils_timeval32 *time, char *text) __asm__("get_ms_time");
/* Names of their own for copies out of line, which would otherwise be taken for the exported ones.
 */
static inline int get_time(time_t seconds, char *text) __asm__("utils_get_time64");
static inline int get_ms_time(const struct timeval *time,
                              char *text) __asm__("utils_get_ms_time64");
#endif
/** @endcond */

/**
 * Writes local time as "Jan 31 14:03:27", the month as the program's locale calls it. On a 32-bit
 * host 32 bits of the seconds count, read as unsigned: right from 1970 to 2106, also in a program
 * built with 64-bit time_t.
 * @param seconds since 1970
 * @param text room for CLOCK_TIME_ROOM characters
 * @return its length; 0, with an empty text, for a time that no calendar has or a month too long
 */
int get_time(time_t seconds, char *text);

/**
 * As get_time(), then appends a point and three zeros: for a valid number of microseconds no
 * milliseconds are shown.
 * @param time seconds and microseconds
 * @param text room for CLOCK_MS_TIME_ROOM characters
 * @return the length of what was appended
 */
int get_ms_time(const struct timeval *time, char *text);

/** @cond */
#ifdef UTILS_TIME_NARROWED
static inline int get_time(time_t seconds, char *text) {
    return utils_get_time32(UTILS_AS(uint32_t, seconds), text);
}
static inline int get_ms_time(const struct timeval *time, char *text) {
    utils_timeval32 narrow;
    if (!time)
        return utils_get_ms_time32(0, text);
    narrow.tv_sec = UTILS_AS(uint32_t, time->tv_sec);
    narrow.tv_usec = UTILS_AS(int32_t, time->tv_usec);
    return utils_get_ms_time32(&narrow, text);
}
#endif
/** @endcond */

/** Clears @p record. */
void perf_init(perf_record *record);

/** Marks the start of an interval. */
void perf_start(perf_record *record);

/**
 * Ends an interval and counts it. A shortest or longest of 0 counts as unset, so an interval of
 * 0 ms never stays the shortest. Without perf_start() it is measured from time 0.
 * @return the interval in milliseconds
 */
uint32_t perf_stop(perf_record *record);

/**
 * Clock ticks since boot, like times(), which it calls once in 12000 ticks at most.
 * @return ticks, or -1 when times() fails
 */
int32_t qel_times(void);

UTILS_END_DECLS

#endif
