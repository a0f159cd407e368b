// SPDX-License-Identifier: Apache-2.0
// Linked lists of nodes that belong to the caller. Each list has its own mutex; every call that
// changes or reads a header holds it for the whole call, and nothing is called out from under it.
// Lock order: lstConcat takes the destination's mutex before the source's.
#include "utils/lst.h"

#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "base/thread.h"

static_assert(sizeof(void *) != 4 || sizeof(LIST) == 12 + sizeof(pthread_mutex_t));
static_assert(offsetof(LIST, tail) == sizeof(void *) &&
              offsetof(LIST, count) == 2 * sizeof(void *));
static_assert(offsetof(NODE, next) == 0 && offsetof(NODE, previous) == sizeof(void *));

namespace utils {
namespace {

// The helpers below expect the list's lock to be held.

int position_of(const LIST &list, const NODE *node) {
    int position = 1;
    for (const NODE *n = list.head; n != nullptr; n = n->next, ++position) {
        if (n == node)
            return position;
    }
    return -1;
}

// What stands at the tail is told by `tail` alone: behind it, the nodes of a list whose header was
// copied may go on.
void link(LIST &list, NODE *prev, NODE *node, NODE *next) {
    bool at_tail = prev == list.tail;
    node->previous = prev;
    node->next = next;
    (prev != nullptr ? prev->next : list.head) = node;
    if (at_tail)
        list.tail = node;
    else if (next != nullptr)
        next->previous = node;
    ++list.count;
}

void unlink(LIST &list, NODE *node) {
    (node->previous != nullptr ? node->previous->next : list.head) = node->next;
    (node->next != nullptr ? node->next->previous : list.tail) = node->previous;
    node->next = nullptr;
    node->previous = nullptr;
    --list.count;
}

}  // namespace
}  // namespace utils

using namespace utils;

void lstInit(LIST *list) {
    if (list == nullptr)
        return;
    list->head = nullptr;
    list->tail = nullptr;
    list->count = 0;
    init_mutex(&list->lock);
}

void lstAdd(LIST *list, NODE *node) {
    if (list == nullptr || node == nullptr)
        return;
    RecordLock lock(list->lock);
    link(*list, list->tail, node, nullptr);
}

void lstInsert(LIST *list, NODE *prev, NODE *node) {
    if (list == nullptr || node == nullptr)
        return;
    RecordLock lock(list->lock);
    link(*list, prev, node, prev != nullptr ? prev->next : list->head);
}

void lstDelete(LIST *list, NODE *node) {
    if (list == nullptr)
        return;
    {
        RecordLock lock(list->lock);
        if (position_of(*list, node) > 0) {
            unlink(*list, node);
            return;
        }
    }
    fprintf(stderr, "ERROR lstDelete() - ");
    fprintf(stderr, "cannot find NODE 0x%" PRIxPTR " in LIST\n", reinterpret_cast<uintptr_t>(node));
}

NODE *lstGet(LIST *list) {
    if (list == nullptr)
        return nullptr;
    RecordLock lock(list->lock);
    NODE *node = list->head;
    if (node == nullptr)
        return nullptr;
    list->head = node->next;
    (list->head != nullptr ? list->head->previous : list->tail) = nullptr;
    --list->count;
    return node;
}

int lstRemove(LIST *list, NODE *node) {
    if (lstFind(list, node) == -1)
        return 0;
    lstDelete(list, node);
    return 1;
}

int lstCount(LIST *list) {
    if (list == nullptr)
        return 0;
    RecordLock lock(list->lock);
    return list->count;
}

NODE *lstFirst(LIST *list) {
    if (list == nullptr)
        return nullptr;
    RecordLock lock(list->lock);
    return list->head;
}

NODE *lstLast(LIST *list) {
    if (list == nullptr)
        return nullptr;
    RecordLock lock(list->lock);
    return list->tail;
}

NODE *lstNth(LIST *list, int position) {
    if (list == nullptr)
        return nullptr;
    RecordLock lock(list->lock);
    if (position < 1 || position > list->count)
        return nullptr;
    if (position < list->count / 2)
        return lstNStep(list->head, position - 1);
    return lstNStep(list->tail, position - list->count);
}

int lstFind(LIST *list, NODE *node) {
    if (list == nullptr)
        return -1;
    RecordLock lock(list->lock);
    return position_of(*list, node);
}

NODE *lstNext(NODE *node) {
    return node != nullptr ? node->next : nullptr;
}

NODE *lstPrevious(NODE *node) {
    return node != nullptr ? node->previous : nullptr;
}

NODE *lstNStep(NODE *node, int steps) {
    for (; steps > 0 && node != nullptr; --steps)
        node = node->next;
    for (; steps < 0 && node != nullptr; ++steps)
        node = node->previous;
    return node;
}

int lstConcat(LIST *dst, LIST *src) {
    if (dst == nullptr || dst == src)
        return 1;
    if (src == nullptr)
        return 0;
    RecordLock lock_dst(dst->lock);
    RecordLock lock_src(src->lock);
    if (src->head == nullptr)
        return 0;
    src->head->previous = dst->tail;
    (dst->tail != nullptr ? dst->tail->next : dst->head) = src->head;
    dst->tail = src->tail;
    dst->count += src->count;
    src->head = nullptr;
    src->tail = nullptr;
    src->count = 0;
    return 0;
}

void lstFree(LIST *list) {
    if (list == nullptr)
        return;
    NODE *node = list->head;
    list->head = nullptr;
    list->tail = nullptr;
    list->count = 0;
    pthread_mutex_destroy(&list->lock);
    while (node != nullptr) {
        NODE *next = node->next;
        free(node);
        node = next;
    }
}

void lstShallowCopy(LIST *dst, LIST *src) {
    if (dst == nullptr || src == nullptr)
        return;
    dst->head = src->head;
    dst->tail = src->tail;
    dst->count = src->count;
}
