// SPDX-License-Identifier: Apache-2.0
// Message queues. A queue owns its nodes: they move between the chain of waiting messages and the
// chain of spares, and are freed when 64 spares are kept already or the queue is deleted.
// Everything happens under the queue's own recursive mutex; no other lock is taken while it is
// held. A receiver that waits is signalled after the mutex is released.
#include "utils/msgq.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/deadline.h"
#include "base/heap.h"
#include "base/retry.h"
#include "base/text.h"
#include "base/thread.h"
#include "base/wakeups.h"
#include "utils/platform/context.h"

// A node is one heap block: this header, room for the longest message, then the sender's context.
struct msgQNode {
    msgQNode *next;
    int16_t length;
};

static_assert(MSGQ_LENGTH_MAX == INT16_MAX);
static_assert(offsetof(msgQ, maxMsgs) == MSGQ_NAME_SIZE && offsetof(msgQ, missCount) == 40);
static_assert(sizeof(void *) != 4 || offsetof(msgQ, queued) == 44 + sizeof(pthread_mutex_t) +
                                                                   sizeof(pthread_cond_t) +
                                                                   (44 + sizeof(pthread_mutex_t)) %
                                                                       alignof(pthread_cond_t));

namespace utils {
namespace {

constexpr int kMissesPerReport = 128;

// A queue's record, and what follows it unseen.
struct Queue {
    msgQ shown;
    size_t room;  // for the bytes of a message in its node
    struct {
        int32_t waiting, woken, signalling, maker;
    } wakeups;
};

Queue &whole(msgQ &queue) {
    return reinterpret_cast<Queue &>(queue);
}

// Longer messages are refused, so the room of a node ends there.
size_t room_for(unsigned length) {
    size_t room = length < MSGQ_LENGTH_MAX ? length : MSGQ_LENGTH_MAX;
    return (room + alignof(max_align_t) - 1) / alignof(max_align_t) * alignof(max_align_t);
}

unsigned char *payload(msgQNode *node) {
    return reinterpret_cast<unsigned char *>(node + 1);
}

unsigned char *context(msgQ &queue, msgQNode *node) {
    return payload(node) + whole(queue).room;
}

void append(msgQChain &chain, msgQNode *node) {
    node->next = nullptr;
    (chain.tail != nullptr ? chain.tail->next : chain.head) = node;
    chain.tail = node;
    ++chain.count;
}

msgQNode *take(msgQChain &chain) {
    msgQNode *node = chain.head;
    if (node != nullptr) {
        chain.head = node->next;
        if (chain.head == nullptr)
            chain.tail = nullptr;
        --chain.count;
    }
    return node;
}

void free_chain(msgQChain &chain) {
    while (msgQNode *node = take(chain))
        free(node);
}

// A node for one message: a spare one, or a new one; null when memory runs out.
msgQNode *fresh_node(msgQ &queue) {
    if (msgQNode *node = take(queue.spare))
        return node;
    return static_cast<msgQNode *>(malloc(sizeof(msgQNode) + whole(queue).room + sizeof_geps()));
}

void wait_forever(msgQ &queue) {
    retry_error([&] { return pthread_cond_wait(&queue.notEmpty, &queue.lock); });
}

void wait_until(msgQ &queue, int timeout_ms) {
    timespec deadline = deadline_after(timeout_ms);
    retry_error([&] { return pthread_cond_timedwait(&queue.notEmpty, &queue.lock, &deadline); });
}

// Says why a message was refused.
__attribute__((noinline)) int refuse(msgQ &queue, unsigned len) {
    if (queue.queued.count < queue.maxMsgs) {
        printf("queue %s: msg too long (len=%d)\n", queue.name, static_cast<int>(len));
        return UTILS_ERROR;
    }
    int32_t before = queue.missCount;
    queue.missCount = before == INT32_MAX ? 0 : before + 1;
    if (before % kMissesPerReport == 0)
        printf("queue %s: queue full (miss=%d)\n", queue.name, queue.missCount);
    return UTILS_ERROR;
}

// Copies the message and the sender's context into the queue, or counts a miss.
int enqueue(msgQ &queue, const void *msg, unsigned len) {
    if (queue.queued.count >= queue.maxMsgs || len > queue.maxMsgLength || len > MSGQ_LENGTH_MAX)
        return refuse(queue, len);
    msgQNode *node = fresh_node(queue);
    if (node == nullptr)
        return UTILS_ERROR;
    node->length = static_cast<int16_t>(len);
    if (len > 0)
        memcpy(payload(node), msg, len);
    ep_context(nullptr, context(queue, node));
    append(queue.queued, node);
    if (queue.queued.count > queue.highWater)
        queue.highWater = queue.queued.count;
    return UTILS_OK;
}

}  // namespace
}  // namespace utils

using namespace utils;

msgQHandle msgQCreate(int maxMsgs, unsigned maxMsgLength, int options, const char *name) {
    constexpr size_t kUnseen = sizeof(Queue) - sizeof(msgQ);
    HeapBlock<msgQ> queue(allocate_zeroed<msgQ>(kUnseen));
    if (!queue || init_mutex(&queue->lock, PTHREAD_MUTEX_RECURSIVE) != 0)
        return nullptr;
    if (init_monotonic(&queue->notEmpty) != 0) {
        pthread_mutex_destroy(&queue->lock);
        return nullptr;
    }
    queue->maxMsgs = maxMsgs;
    queue->maxMsgLength = maxMsgLength;
    queue->options = options;
    copy_text(queue->name, name);
    Queue &all = whole(*queue.get());
    all.room = room_for(maxMsgLength);
    all.wakeups.maker = getpid();
    return queue.release();
}

int msgQSend(msgQHandle queue, const void *msg, unsigned len, ...) {
    if (queue == nullptr)
        return UTILS_ERROR;
    pthread_mutex_lock(&queue->lock);
    int result = enqueue(*queue, msg, len);
    if (result == UTILS_OK)
        unlock_and_wake(queue->lock, queue->notEmpty, whole(*queue).wakeups);
    else
        pthread_mutex_unlock(&queue->lock);
    return result;
}

int msgQReceive(msgQHandle queue, void *buf, unsigned size, int timeout_ms) {
    if (queue == nullptr)
        return 1;
    RecordLock lock(queue->lock);
    // Kept: a receiver that another one overtakes ends before its time.
    // The wait is made once: when it ends early, it is not repeated.
    if (queue->queued.count == 0 && timeout_ms != UTILS_NO_WAIT)
        counted_wait(whole(*queue).wakeups, [=] {
            if (timeout_ms == UTILS_WAIT_FOREVER)
                wait_forever(*queue);
            else
                wait_until(*queue, timeout_ms);
            return 0;
        });
    msgQNode *node = take(queue->queued);
    if (node == nullptr)
        return 1;
    unsigned length = static_cast<unsigned>(node->length);
    if (unsigned taken = length < size ? length : size; taken > 0)
        memcpy(buf, payload(node), taken);
    ep_context(context(*queue, node), nullptr);
    if (queue->spare.count < MSGQ_SPARE_MAX)
        append(queue->spare, node);
    else
        free(node);
    return 0;
}

int msgQDelete(msgQHandle queue) {
    if (queue == nullptr)
        return UTILS_ERROR;
    await_signallers(whole(*queue).wakeups);
    free_chain(queue->queued);
    free_chain(queue->spare);
    pthread_mutex_destroy(&queue->lock);
    pthread_cond_destroy(&queue->notEmpty);
    free(queue);
    return UTILS_OK;
}

int msgQShow(msgQHandle queue) {
    if (queue == nullptr)
        return UTILS_ERROR;
    RecordLock lock(queue->lock);
    printf("queue name: %s, high water: %d\n", queue->name, queue->highWater);
    printf("Task Queuing     : FIFO");
    printf(" (do not support MSG_Q_PRIORITY)\n");
    printf("Message Byte Len : %d\n", static_cast<int>(queue->maxMsgLength));
    printf("Messages Max     : %d\n", queue->maxMsgs);
    printf("Messages Queued  : %d\n", queue->queued.count);
    return UTILS_OK;
}
