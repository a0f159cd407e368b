/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file msgq.h
 * @brief Bounded first-in first-out queues of copied messages between the threads of a process.
 *
 * Besides its bytes a message carries the sender's platform context, which the receiving thread
 * takes on. Once a queue has seen its working depth, sending and receiving allocate nothing.
 *
 * Threads: any number of threads may send and receive. msgQDelete() must be the last call: nobody
 * may wait on the queue or use it any more. A null queue is refused with -1 (1 from msgQReceive).
 */
#ifndef UTILS_MSGQ_H
#define UTILS_MSGQ_H

#include <pthread.h>
#include <utils/base.h>

UTILS_BEGIN_DECLS

#define MSGQ_NAME_SIZE 24     /**< room for a queue's name and its terminator */
#define MSGQ_SPARE_MAX 64     /**< most emptied nodes that a queue keeps for reuse */
#define MSGQ_LENGTH_MAX 32767 /**< longest message of any queue, in bytes */

typedef struct msgQNode msgQNode; /**< a queued message: its length, bytes and context; opaque */

/** A chain of message nodes. */
typedef struct msgQChain {
    msgQNode *head; /**< oldest node */
    msgQNode *tail; /**< newest node */
    int32_t count;  /**< number of nodes */
} msgQChain;

/** A queue; public for inspection in a debugger, to be changed only by the calls below. */
typedef struct msgQ {
    char name[MSGQ_NAME_SIZE]; /**< cut to 23 characters */
    int32_t maxMsgs;           /**< most messages queued at once */
    uint32_t maxMsgLength;     /**< longest message in bytes, and the room of every node */
    int32_t options;           /**< stored, never used */
    int32_t highWater;         /**< most messages ever queued at once */
    int32_t missCount;         /**< sends refused because the queue was full */
    pthread_mutex_t lock;      /**< recursive; guards everything here */
    pthread_cond_t notEmpty;   /**< on the monotonic clock; a send wakes who waits */
    msgQChain queued;          /**< messages that wait, oldest first */
    msgQChain spare;           /**< emptied nodes */
} msgQ;

/** A queue, released by msgQDelete(). */
typedef struct msgQ *msgQHandle;

/**
 * Makes an empty queue.
 * @param maxMsgs      most messages queued at once
 * @param maxMsgLength longest message in bytes
 * @param options      stored only; queuing is always first in, first out
 * @param name         shown in reports; cut to 23 characters, null counts as ""
 * @return the queue, or null when memory or another resource runs out
 */
msgQHandle msgQCreate(int maxMsgs, unsigned maxMsgLength, int options, const char *name);

/**
 * Copies a message into the queue. Never waits: a full queue refuses at once and counts a miss, and
 * every 128th miss is reported on standard output. Further arguments (a time-out and a priority,
 * as the task API has them) are accepted and ignored.
 * @param queue the queue
 * @param msg   the bytes; may be null only when @p len is 0
 * @param len   number of bytes, at most maxMsgLength and MSGQ_LENGTH_MAX
 * @return 0, or -1 when the queue is full, the message too long, or memory runs out
 *
 * Memory ordering: what the sender wrote before msgQSend() returned 0 is visible to the thread
 * whose msgQReceive() takes this message; a refused send orders nothing. (Both lock the queue's
 * mutex, whose synchronisation POSIX.1-2017 XBD 4.12 promises.)
 */
int msgQSend(msgQHandle queue, const void *msg, unsigned len, ...);

/**
 * Takes the oldest message and its sender's context. A message longer than @p size is cut without
 * notice; its length is not reported.
 * @param queue      the queue
 * @param buf        receives the bytes; untouched when there is no message
 * @param size       bytes of room in @p buf
 * @param timeout_ms milliseconds; -1 waits without limit, 0 does not wait. The wait is made once:
 *                   when another receiver is quicker, the call ends early with 1.
 * @return 0 when a message was taken, 1 when not
 *
 * Memory ordering: after 0 everything that the sender of this message, and of each older one,
 * wrote before its msgQSend() is visible.
 */
int msgQReceive(msgQHandle queue, void *buf, unsigned size, int timeout_ms);

/**
 * Discards waiting messages and frees the queue; wakes nobody. A sender whose message made the
 * caller delete the queue may still be busy waking it: the call waits for that, at most 100 ms,
 * except in a child that was forked after msgQCreate(); a sender that is held up for longer uses
 * memory that was freed.
 * @return 0
 */
int msgQDelete(msgQHandle queue);

/** Prints name, limits and fill of the queue on standard output. @return 0 */
int msgQShow(msgQHandle queue);

UTILS_END_DECLS

#endif
