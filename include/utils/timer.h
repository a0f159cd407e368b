/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file timer.h
 * @brief One-shot and periodic timers on one delta chain per process, without thread or lock.
 *
 * A program that uses this family drives the chain itself: it asks timer_gettimeout() how long it
 * may sleep and calls timer_callback() when it wakes. Most programs want utils/timer_r.h instead,
 * whose service thread (or I/O loop) does so under a mutex; never mix the two in one process.
 *
 * Times are milliseconds of the processor's time base, 32-bit unsigned, and wrap after 49 days. A
 * timer that falls due within 50 ms fires in the current pass; periodic timers need periods of 50
 * ms or more, or the pass never ends, and a one-shot timer that its handler sets to less than 50 ms
 * fires again in the same pass. The clock counts whole milliseconds, so a timer may fire up to one
 * early; it may also be late by all that the timers before it on the chain were late, since each
 * counts from its predecessor: a 10 s timer behind a busy one of 100 ms came 0.5 to 0.9 s late.
 * Periodic timers are re-armed from the start of a pass and so drift by its lateness. Among timers
 * due at the same moment the one set last fires first.
 *
 * A timer keeps the platform context of the thread that created or last set it; its handler runs
 * with that context installed. A handler may set, cancel and delete any timer, its own included.
 *
 * The C library has other functions named timer_create and timer_delete. This header includes
 * <time.h> first and maps both names to its own, by macros that in C++ rename members of those
 * names, too (in every file or in none); a program that calls the POSIX functions does so in an
 * object that is not linked against this library.
 *
 * Threads: none of these calls locks; all must come from one thread or be serialised by the caller.
 */
#ifndef UTILS_TIMER_H
#define UTILS_TIMER_H

#include <time.h>
#include <utils/base.h>

#ifndef UTILS_DOXYGEN
#define timer_create utils_timer_create
#define timer_delete utils_timer_delete
#endif

UTILS_BEGIN_DECLS

#define TIMER_MAGIC_HEAD 0x454D4954u /**< first word of a valid timer */
#define TIMER_MAGIC_TAIL 0x656D6974u /**< last word of a valid timer */
#define TIMER_IDLE 1                 /**< state: not on the chain */
#define TIMER_ARMED 2                /**< state: on the chain */
#define TIMER_PERIODIC 1u            /**< flag: re-armed when it fires */

/** A timer, released by timer_delete(). */
typedef struct timer *timerHandle;

/** Called when a timer fires, with the two words given at its creation. */
typedef void (*timerHandler)(uintptr_t arg1, uintptr_t arg2);

/** Called instead of a timer's handler, when set with timer_setulh(). */
typedef void (*timerWrapper)(timerHandle timer, uintptr_t ulhArg, timerHandler handler,
                             uintptr_t arg1, uintptr_t arg2);

/** A timer record; public for inspection in a debugger. The saved context follows it. */
struct timer {
    uint32_t magicHead;   /**< TIMER_MAGIC_HEAD while valid */
    struct timer *next;   /**< next timer on the chain */
    int32_t state;        /**< TIMER_IDLE or TIMER_ARMED */
    uint32_t period;      /**< ms given to the last timer_set(); 0 when idle */
    uint32_t delta;       /**< ms after the timer before it on the chain */
    uint32_t expiry;      /**< due time on the millisecond clock */
    timerHandler handler; /**< called when the timer fires */
    uintptr_t arg1;       /**< first argument of the handler */
    uintptr_t arg2;       /**< second argument of the handler */
    uint32_t flags;       /**< TIMER_PERIODIC or 0 */
    uintptr_t ulhArg;     /**< argument of the wrapper */
    timerWrapper ulhFn;   /**< wrapper, or null */
    uint32_t magicTail;   /**< TIMER_MAGIC_TAIL while valid */
};

/**
 * Makes an idle one-shot timer.
 * @param handler called when it fires, or null
 * @param arg1    first argument of the handler
 * @param arg2    second argument of the handler
 * @return the timer, or null when memory runs out
 */
timerHandle timer_create(timerHandler handler, uintptr_t arg1, uintptr_t arg2)
#ifndef UTILS_DOXYGEN
    __asm__("timer_create")
#endif
        ;

/** As timer_create(), periodic. @return the timer, or null when memory runs out */
timerHandle timer_create_periodic(timerHandler handler, uintptr_t arg1, uintptr_t arg2);

/**
 * Arms the timer to fire in @p ms milliseconds (and every @p ms from then on when periodic); an
 * armed timer starts anew. Timeouts are at most 2^31 - 1.
 * @return 0, or -1 for a handle that is not a valid timer
 */
int timer_set(timerHandle timer, uint32_t ms);

/** Stops the timer. @return 0, also when it was idle; -1 for an invalid handle */
int timer_cancel(timerHandle timer);

/** Stops the timer. @return 0 when it was armed; -1 when it was idle, or for an invalid handle */
int timer_cancelx(timerHandle timer);

/** Stops and frees the timer; allowed in its own handler. @return 0, or -1 for an invalid handle */
int timer_delete(timerHandle timer)
#ifndef UTILS_DOXYGEN
    __asm__("timer_delete")
#endif
        ;

/**
 * Gives an idle timer another handler. An invalid handle aborts the process.
 * @return 0, or -1 when the timer is armed; it keeps its handler then
 */
int timer_modhandler(timerHandle timer, timerHandler handler);

/** @return 1 when the timer is armed, 0 when idle; an invalid handle aborts the process */
int timer_ticking(timerHandle timer);

/**
 * Lets @p wrapper be called with @p ulhArg in place of the handler.
 * A null timer or wrapper aborts the process.
 */
void timer_setulh(timerHandle timer, uintptr_t ulhArg, timerWrapper wrapper);

/** @return the timer that falls due first, or null */
timerHandle timer_gethead(void);

/** @return milliseconds until the first timer is due, 0 when it is, -1 when none is armed */
int timer_gettimeout(void);

/** Fires every timer that is due, on the calling thread. Allocates nothing. */
void timer_callback(void);

/** Deletes every armed timer; idle ones stay. */
void timer_cleanup(void);

UTILS_END_DECLS

#endif
