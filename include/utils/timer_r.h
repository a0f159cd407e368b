/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file timer_r.h
 * @brief Timers for threads: the engine of utils/timer.h
 * behind one mutex, with a service that fires them.
 *
 * The service is a thread of the library, started by the first create, or the I/O subsystem of the
 * platform when the daemon already runs such a loop (timer_ioss_create()). A timer made with a
 * message queue posts a 56-byte timer_message to it when it fires, so that the daemon's own thread
 * runs the handler; a timer without a queue has its handler called by the service, with the mutex
 * released, so that the handler may call anything of this family.
 *
 * The service treats broken locking and a lost expiry message (a full queue, above all) as fatal:
 * it prints "Assert failure: timer_r:<line>" on standard output and aborts. Give a queue room for
 * every timer that posts to it.
 *
 * Timers are as punctual as utils/timer.h says. Deleting or cancelling one does not wait for a
 * handler that runs at that moment, and an expiry message that waits in a queue stays there. After
 * fork() the child has no service thread: it may delete timers, not rely on them, and only when no
 * other thread of the parent could hold the timer mutex at the fork.
 *
 * Threads: every call may come from any thread; timer_flush_r() takes no lock. The mutex is taken
 * before a queue's own. Threads that use these calls must not be cancelled.
 */
#ifndef UTILS_TIMER_R_H
#define UTILS_TIMER_R_H

#include <utils/base.h>
#include <utils/msgq.h>
#include <utils/timer.h>

UTILS_BEGIN_DECLS

#define TIMER_MESSAGE_TYPE 5    /**< first byte of an expiry message */
#define TIMER_MESSAGE_LENGTH 56 /**< bytes of an expiry message */

/** What a timer posts to its queue. The receiver calls handler(arg1, arg2). */
typedef struct timer_message {
    uint8_t type;         /**< TIMER_MESSAGE_TYPE */
    uint8_t unset1[3];    /**< not set */
    uint32_t zero;        /**< 0 */
    uint8_t zero_byte;    /**< 0 */
    uint8_t unset2[3];    /**< not set */
    uint32_t time_ms;     /**< when it fired, on the millisecond clock */
    timerHandle timer;    /**< which timer */
    timerHandler handler; /**< its handler */
    uintptr_t arg1;       /**< first argument for the handler */
    uintptr_t arg2;       /**< second argument for the handler */
    uint8_t unset3[TIMER_MESSAGE_LENGTH - 16 - 4 * sizeof(uintptr_t)]; /**< not set */
} timer_message;

/**
 * Starts the service thread, unless a service runs already. Creating a timer does this by itself.
 * @return 0, or -1 when it cannot be started
 */
int timer_init_r(void);

/**
 * Makes an idle one-shot timer.
 * @param queue   receives the expiry messages; null: the service calls the handler
 * @param handler called by the receiver of the message, or by the service
 * @param arg1    first argument of the handler
 * @param arg2    second argument of the handler
 * @return the timer, or null when the service cannot be started (reported on standard output) or
 *         memory runs out
 */
timerHandle timer_create_r(msgQHandle queue, timerHandler handler, uintptr_t arg1, uintptr_t arg2);

/** As timer_create_r(), periodic. @return the timer, or null */
timerHandle timer_create_periodic_r(msgQHandle queue, timerHandler handler, uintptr_t arg1,
                                    uintptr_t arg2);

/**
 * timer_create_periodic_r() when @p periodic is 1, otherwise timer_create_r(); the word @p ignored
 * is not used. @return the timer, or null
 */
timerHandle createTimer(msgQHandle queue, uintptr_t ignored, timerHandler handler, uintptr_t arg1,
                        uintptr_t arg2, int periodic);

/** As createTimer(), with a handler that is called directly.
 * @return the timer, or null, also for a null handler */
timerHandle createTimerCB(timerHandler handler, uintptr_t ignored, uintptr_t arg1, uintptr_t arg2,
                          int periodic);

/** As timer_set(); wakes the service when another timer now falls due first, or the first one at
 * another time. @return 0, or -1 for an invalid handle, also of a timer pending at a close */
int timer_set_r(timerHandle timer, uint32_t ms);

/** As timer_cancel(). @return 0, or -1 for an invalid handle */
int timer_cancel_r(timerHandle timer);

/** As timer_cancelx(). @return 0 when it was armed, otherwise -1 */
int timer_cancelx_r(timerHandle timer);

/** As timer_delete(). @return 0, or -1 for an invalid handle */
int timer_delete_r(timerHandle timer);

/** As timer_modhandler(). @return 0, or -1 when the timer is armed */
int timer_modhandler_r(timerHandle timer, timerHandler handler);

/** As timer_ticking(). @return 1 when armed, otherwise 0 */
int timer_ticking_r(timerHandle timer);

/** From now on, for the life of the process, timers run down but deliver nothing. */
void timer_flush_r(void);

/**
 * Stops the service thread: it ends soon after this call has returned, and every timer armed now is
 * deleted, even while its handler runs: by the thread, or before it by the next call that creates
 * or sets a timer or starts a service. Idle timers stay valid; one that is set after a close, also
 * one whose create overlapped the close, fires only once a service runs again, which the next
 * create or timer_init_r() starts. @return 0
 */
int timer_close_r(void);

/**
 * Lets the platform's I/O subsystem drive the timers instead of a thread. Call it before anything
 * else of this family; when the service runs already it aborts the process.
 * @param ioss_arg the I/O subsystem, given to ioss_create()
 * @param wake     called with @p wakeArg when what falls due first changes, and on a close, until
 *                 timer_ioss_free(); on the calling thread with the timer mutex held, so it must
 *                 not use this family
 * @param wakeArg  its argument
 * @return 0, or -12 when the subsystem refuses (reported on standard error)
 */
int timer_ioss_create(void *ioss_arg, void (*wake)(uintptr_t), uintptr_t wakeArg);

/**
 * Takes the timers off the I/O subsystem.
 * @param handle the I/O subsystem's handle, whose first word is not 0; anything else aborts
 * @return 0
 */
int timer_ioss_free(void *handle);

UTILS_END_DECLS

#endif
