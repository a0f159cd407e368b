/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file iot.h
 * @brief I/O watch thread: one background thread that calls a handler for each readable descriptor.
 *
 * At most eight descriptors, each from 0 to 1023. iot_init() once, iot_add() and iot_start() in any
 * order after it. A change takes effect when the thread's current wait ends: nothing wakes it, so a
 * descriptor added to a waiting thread is seen after the next event of another one. Keep one
 * descriptor watched (a pipe, say) that the daemon can make readable to hurry a change.
 *
 * The thread ends only when waiting fails, for instance because a watched descriptor was closed:
 * take it out with iot_del() and let a round pass before closing it. It is never joined.
 *
 * Threads: every call may be made from any thread, handlers included. Handlers run on the watch
 * thread, one at a time, in the order of the table; each must consume its descriptor's input. After
 * fork() the child has no watch thread and must not use this family.
 */
#ifndef UTILS_IOT_H
#define UTILS_IOT_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define IOT_ENTRIES_MAX 8         /**< most descriptors at a time */
#define IOT_DESCRIPTOR_LIMIT 1024 /**< descriptors are below this */

/** @name Kinds for iot_notify()
 *  @{ */
#define IOT_NOTIFY_REBUILD 0   /**< watch exactly the descriptors added with a watch flag */
#define IOT_NOTIFY_WATCH_ALL 1 /**< watch every descriptor that is registered */
#define IOT_NOTIFY_FORWARD 2   /**< call the notification function */
/** @} */

/** Receives what iot_notify() forwards: the kind, then the other arguments as they were given. */
typedef void (*iot_notification)(int kind, ...);

/** Serves a readable descriptor on the watch thread; its result is ignored. */
typedef int (*iot_handler)(int descriptor);

/** Forgets all descriptors and stores @p notification, which may be null. @return 0 */
int iot_init(iot_notification notification);

/** Starts the watch thread. @return 0, or -1 when it cannot be created */
int iot_start(void);

/**
 * Registers a descriptor.
 * @param descriptor 0 to 1023
 * @param handler    called when it is readable
 * @param watch      non-zero: watched at once and after every rebuild; 0: only after
 *                   IOT_NOTIFY_WATCH_ALL
 * @return 0, or -1 when all entries are in use or the descriptor is out of range
 */
int iot_add(int descriptor, iot_handler handler, unsigned watch);

/** Stops watching @p descriptor and frees its first entry;
 * does not close it. Unknown ones are ignored. */
void iot_del(int descriptor);

/**
 * Changes what is watched, or forwards a message.
 * @param kind IOT_NOTIFY_REBUILD: entries that are free are passed over.
 *             IOT_NOTIFY_WATCH_ALL: of the registered descriptors, those up to the highest one
 *             added since the last rebuild, or watched by it, are waited for and served.
 *             IOT_NOTIFY_FORWARD: the notification function is called on this thread with 2 and
 *             up to seven further integers or pointers of at most a machine word.
 *             Others do nothing.
 */
void iot_notify(int kind, ...);

/** Pads the call with words of zero, so that seven can always be forwarded. In C++ the macro takes
 * members of that name, too; undefine it there, or write (iot_notify) for the name alone. */
#define iot_notify(...)                                                                \
    iot_notify(__VA_ARGS__, UTILS_AS(uintptr_t, 0), UTILS_AS(uintptr_t, 0),            \
               UTILS_AS(uintptr_t, 0), UTILS_AS(uintptr_t, 0), UTILS_AS(uintptr_t, 0), \
               UTILS_AS(uintptr_t, 0), UTILS_AS(uintptr_t, 0))

/** Frees every entry. The thread goes on with the old watch set but finds nobody to serve. */
void iot_exit(void);

UTILS_END_DECLS

#endif
