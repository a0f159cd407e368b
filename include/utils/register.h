/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file register.h
 * @brief Callback registry: routes events to a function, a message queue or both.
 *
 * Consumers register for an event identifier within a group; two keys and a classifier make the
 * group. A source dispatches under the two keys, the group's classifier turns the source's argument
 * into an identifier, and the entry registered for that is served. At most six groups, which live
 * until the process ends; a group's entries grow by four.
 *
 * Threads: the registry has no lock. Register and unregister from one thread, while nobody
 * dispatches (start-up and shutdown); then any thread may dispatch. A callback may register and
 * unregister. Dispatching allocates nothing.
 */
#ifndef UTILS_REGISTER_H
#define UTILS_REGISTER_H

#include <utils/base.h>
#include <utils/msgq.h>

UTILS_BEGIN_DECLS

#define CB_GROUPS_MAX 6      /**< most groups of a process */
#define CB_CHECKED_KEY 256   /**< second key of groups whose re-registrations are checked */
#define CB_MESSAGE_SIZE 56   /**< size in bytes of the message that cb_dispatch() posts */
#define CB_UNCLASSIFIED (-1) /**< the identifier of an event in a group that cannot classify */
#define CB_TABLE_FULL (-351) /**< result: all groups are taken */

/** How a group classifies events; belongs to the registrant
 * and must outlive the process's last dispatch. */
typedef struct cb_ops {
    int (*hook)(void *argument);         /**< called first, or null; its result is ignored */
    int32_t (*classify)(void *argument); /**< gives the identifier, or null: CB_UNCLASSIFIED */
} cb_ops;

/** Consumes an event; its result is ignored. */
typedef int (*cb_callback)(void *argument);

/**
 * Registers a consumer. An entry that has the identifier already is replaced; in a group whose
 * second key is CB_CHECKED_KEY a different callback or queue is reported through do_assert() and
 * replaced all the same.
 * @param key1       first key of the group
 * @param key2       second key of the group
 * @param classifier the group's classifier, its third key; may be null
 * @param id         the event's identifier
 * @param callback   called with the dispatch argument, or null
 * @param queue      receives the event's message, or null
 * @return 0, CB_TABLE_FULL, or UTILS_ENOMEM
 *
 * Memory ordering: what was written before cb_register() is visible to the callback of a
 * cb_dispatch() that finds the entry; a dispatch sees an entry whole or not at all.
 */
int cb_register(uint32_t key1, int32_t key2, const cb_ops *classifier, int32_t id,
                cb_callback callback, msgQHandle queue);

/**
 * Clears the consumer registered for @p id; the group's keys are as for cb_register().
 * @return 0, or UTILS_ENOENT when there is none
 */
int cb_unregister(uint32_t key1, int32_t key2, const cb_ops *classifier, int32_t id);

/**
 * Routes one event to the first group with both keys, whatever its classifier, and there to the
 * first entry with the event's identifier: its callback is called, then the message is posted.
 * @param key1     first key of the group
 * @param key2     second key of the group
 * @param message  the 56-byte queue message; the millisecond clock is written into its bytes 12 to
 *                 15 (native order) before it is posted. May be null when no queue is registered.
 * @param argument handed to hook, classifier and callback
 * @return 0 when the event was delivered or nobody wants it, 1 when the queue refused the message
 *         (the callback has been called then)
 *
 * Memory ordering: pairs with the cb_register() whose entry it finds; the message's receiver is
 * ordered by its queue (msgQReceive()).
 */
int cb_dispatch(uint32_t key1, int32_t key2, void *message, void *argument);

UTILS_END_DECLS

#endif
