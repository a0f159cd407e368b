/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file lst.h
 * @brief Doubly linked lists of records that belong to the caller.
 *
 * A LIST is a header with a mutex of its own; an element is any record whose first member is a
 * NODE. The list never allocates, and only lstFree() releases nodes. Positions count from 1.
 * Every call accepts a null LIST and then does nothing.
 *
 * Threads: each call that takes a LIST locks it for its whole duration, except lstFree() and
 * lstShallowCopy(). A walk with lstNext(), lstPrevious() or lstNStep() takes no lock; guard it
 * where other threads change the list. To remove nodes while walking, fetch the next node first. A
 * node must not be on two lists; a null NODE is ignored where it would be linked.
 */
#ifndef UTILS_LST_H
#define UTILS_LST_H

#include <pthread.h>
#include <utils/base.h>

UTILS_BEGIN_DECLS

/** The link that stands first in every element record. */
typedef struct NODE {
    struct NODE *next;     /**< following node, null at the tail */
    struct NODE *previous; /**< preceding node, null at the head */
} NODE;

/** A list header; the caller places it anywhere and prepares it with lstInit(). */
typedef struct LIST {
    NODE *head;           /**< first node, null when empty */
    NODE *tail;           /**< last node, null when empty */
    int32_t count;        /**< number of nodes */
    pthread_mutex_t lock; /**< guards the three fields above; not recursive */
} LIST;

/** Makes @p list empty and creates its mutex. Call it once before anything else. */
void lstInit(LIST *list);

/** Appends @p node at the tail. */
void lstAdd(LIST *list, NODE *node);

/** Puts @p node behind @p prev, or at the front when @p prev is null. */
void lstInsert(LIST *list, NODE *prev, NODE *node);

/**
 * Unlinks @p node and clears its links. The list is searched first, so this takes time in
 * proportion to its length. A node that is not on the list
 * is reported on standard error and nothing changes.
 */
void lstDelete(LIST *list, NODE *node);

/**
 * Takes the first node off the list. Its own links keep their old values; do not rely on them.
 * @return the node, or null when the list is empty
 */
NODE *lstGet(LIST *list);

/**
 * Unlinks @p node if it is on the list, without a message otherwise. Search and removal lock
 * separately: when another thread removes the node in between, the report of lstDelete() appears.
 * @return 1 when the node was found, 0 when it is not on the list
 */
int lstRemove(LIST *list, NODE *node);

/** @return the number of nodes */
int lstCount(LIST *list);

/** @return the first node, or null */
NODE *lstFirst(LIST *list);

/** @return the last node, or null */
NODE *lstLast(LIST *list);

/** @return the node at @p position (from 1), or null when there is none; walks from the nearer end
 */
NODE *lstNth(LIST *list, int position);

/** @return the position of @p node (from 1), or -1 when it is not on the list */
int lstFind(LIST *list, NODE *node);

/** @return the node behind @p node, null at the tail or for null; takes no lock */
NODE *lstNext(NODE *node);

/** @return the node before @p node, null at the head or for null; takes no lock */
NODE *lstPrevious(NODE *node);

/**
 * Walks @p steps forward, or backward when negative; takes no lock.
 * @return the node reached, or null when the list ends first
 */
NODE *lstNStep(NODE *node, int steps);

/**
 * Moves every node of @p src behind the tail of @p dst; @p src stays usable and is empty then.
 * Threads: locks @p dst, then @p src. Two threads that do this in opposite directions at the same
 * time can deadlock. A list cannot be joined to itself: that is refused with 1.
 * @return 0, or 1 when @p dst is null (or both are the same list)
 */
int lstConcat(LIST *dst, LIST *src);

/**
 * Empties the list, destroys its mutex and passes every node to free(). Use it only on lists of
 * heap blocks that begin with their NODE. Call lstInit() to use the header again.
 * REQUIRES: nobody else uses the list; no lock is taken.
 */
void lstFree(LIST *list);

/**
 * Lets @p dst show the nodes of @p src: head, tail and count are copied, the mutex is not.
 * REQUIRES: nobody else uses the lists; no lock is taken.
 */
void lstShallowCopy(LIST *dst, LIST *src);

UTILS_END_DECLS

#endif
