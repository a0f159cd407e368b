// SPDX-License-Identifier: Apache-2.0
// The callback registry: six slots, each null or a heap block of a header and its entries. There is
// no lock; slots and entries are atomics, so that a dispatch sees an entry whole or not at all. A
// block replaced by growth is released at once: registration stays out of the way of dispatch.
#include "utils/register.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <limits>

#include "base/heap.h"
#include "time_base.h"
#include "utils/assert.h"

namespace utils {
namespace {

struct Entry {
    int32_t id;
    cb_callback callback;
    msgQHandle queue;
};

struct Group {
    uint32_t key1;
    int32_t key2;
    uint16_t capacity;
    uint16_t used;
    const cb_ops *classifier;
};

static_assert(sizeof(void *) != 4 || (sizeof(Group) == 16 && sizeof(Entry) == 12));
static_assert(offsetof(Group, capacity) == 8 && offsetof(Group, used) == 10);
static_assert(sizeof(Group) % alignof(Entry) == 0);

constexpr uint16_t kGrowth = 4;
constexpr unsigned kStampOffset = 12;
// Checks with two values each. The lines are the established ones of the reports.
constexpr unsigned kCallbackCheck = QEL_CHECK_VERIFY | 2u << QEL_CHECK_COUNT_SHIFT | 150;
constexpr unsigned kQueueCheck = QEL_CHECK_VERIFY | 2u << QEL_CHECK_COUNT_SHIFT | 154;

std::atomic<Group *> slots[CB_GROUPS_MAX];

Group *group_in(int slot) {
    return slots[slot].load(std::memory_order_acquire);
}

Entry *entries_of(Group *group) {
    return reinterpret_cast<Entry *>(group + 1);
}

template <typename T>
T get(T &field) {
    return std::atomic_ref<T>(field).load(std::memory_order_acquire);
}

template <typename T>
void set(T &field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

bool is_live(Entry &entry) {
    return get(entry.callback) != nullptr || get(entry.queue) != nullptr;
}

// The identifier first: a dispatch that sees the entry live sees its identifier, too.
void fill(Entry &entry, int32_t id, cb_callback callback, msgQHandle queue) {
    set(entry.id, id);
    set(entry.callback, callback);
    set(entry.queue, queue);
}

// For registration: the slot of the group, or the first empty one, or CB_GROUPS_MAX.
int slot_of(uint32_t key1, int32_t key2, const cb_ops *classifier) {
    int slot = 0;
    for (; slot < CB_GROUPS_MAX; ++slot) {
        const Group *group = group_in(slot);
        if (group == nullptr ||
            (group->key1 == key1 && group->key2 == key2 && group->classifier == classifier))
            break;
    }
    return slot;
}

// For dispatch: the first group with both keys.
int slot_of(uint32_t key1, int32_t key2) {
    int slot = 0;
    for (; slot < CB_GROUPS_MAX; ++slot) {
        const Group *group = group_in(slot);
        if (group != nullptr && group->key1 == key1 && group->key2 == key2)
            break;
    }
    return slot;
}

// Puts a copy with room for four more entries into the slot.
// Null when there is no memory or no room.
Group *grow(int slot, Group *group) {
    if (group->capacity > std::numeric_limits<uint16_t>::max() - kGrowth)
        return nullptr;
    size_t old_size = sizeof(Entry) * group->capacity;
    auto *grown = allocate_zeroed<Group>(old_size + sizeof(Entry) * kGrowth);
    if (grown == nullptr)
        return nullptr;
    memcpy(grown, group, sizeof *group + old_size);
    grown->capacity = static_cast<uint16_t>(group->capacity + kGrowth);
    slots[slot].store(grown, std::memory_order_release);
    free(group);
    return grown;
}

template <typename T>
uint32_t low_word(T pointer) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer));
}

// Reports a re-registration that changes a consumer; the new values win all the same.
void check_replacement(Entry &entry, cb_callback callback, msgQHandle queue) {
    cb_callback old_callback = get(entry.callback);
    msgQHandle old_queue = get(entry.queue);
    if (old_callback != nullptr && old_callback != callback)
        do_assert("entry->cb == callback", "register", kCallbackCheck, low_word(old_callback),
                  low_word(callback));
    if (old_queue != nullptr && old_queue != queue)
        do_assert("entry->mq == queue", "register", kQueueCheck, low_word(old_queue),
                  low_word(queue));
}

int find_live(Group *group, int32_t id) {
    Entry *entries = entries_of(group);
    for (int i = 0; i < group->capacity; ++i) {
        if (is_live(entries[i]) && get(entries[i].id) == id)
            return i;
    }
    return -1;
}

// Stamps the message with the millisecond clock and posts it. 0, or 1 when it cannot be posted.
int post(msgQHandle queue, void *message) {
    if (message == nullptr)
        return 1;
    uint32_t now = now_ms();
    memcpy(static_cast<unsigned char *>(message) + kStampOffset, &now, sizeof now);
    return msgQSend(queue, message, CB_MESSAGE_SIZE, 0, 1) == 0 ? 0 : 1;
}

}  // namespace
}  // namespace utils

using namespace utils;

int cb_register(uint32_t key1, int32_t key2, const cb_ops *classifier, int32_t id,
                cb_callback callback, msgQHandle queue) {
    int slot = slot_of(key1, key2, classifier);
    if (slot == CB_GROUPS_MAX)
        return CB_TABLE_FULL;
    Group *group = group_in(slot);
    if (group == nullptr) {
        group = allocate_zeroed<Group>(sizeof(Entry) * kGrowth);
        if (group == nullptr)
            return UTILS_ENOMEM;
        *group = {key1, key2, kGrowth, 1, classifier};
        fill(entries_of(group)[0], id, callback, queue);
        slots[slot].store(group, std::memory_order_release);
        return UTILS_OK;
    }
    if (group->used == group->capacity) {
        group = grow(slot, group);
        if (group == nullptr)
            return UTILS_ENOMEM;
    }
    Entry *entries = entries_of(group);
    for (int i = 0; i < group->capacity; ++i) {
        Entry &entry = entries[i];
        bool live = is_live(entry);
        if (!live && get(entry.id) == 0) {
            fill(entry, id, callback, queue);
            ++group->used;
            return UTILS_OK;
        }
        if (get(entry.id) == id) {
            if (key2 == CB_CHECKED_KEY)
                check_replacement(entry, callback, queue);
            fill(entry, id, callback, queue);
            return UTILS_OK;
        }
    }
    return UTILS_ENOMEM;
}

int cb_unregister(uint32_t key1, int32_t key2, const cb_ops *classifier, int32_t id) {
    int slot = slot_of(key1, key2, classifier);
    Group *group = slot < CB_GROUPS_MAX ? group_in(slot) : nullptr;
    int index = group != nullptr ? find_live(group, id) : -1;
    if (index < 0)
        return UTILS_ENOENT;
    fill(entries_of(group)[index], id, nullptr, nullptr);
    return UTILS_OK;
}

int cb_dispatch(uint32_t key1, int32_t key2, void *message, void *argument) {
    // Kept: a dispatch takes the first group of both keys, whatever its classifier.
    int slot = slot_of(key1, key2);
    if (slot == CB_GROUPS_MAX)
        return 0;
    int32_t id = CB_UNCLASSIFIED;
    if (const cb_ops *classifier = group_in(slot)->classifier; classifier != nullptr) {
        if (classifier->hook != nullptr)
            classifier->hook(argument);
        if (classifier->classify != nullptr)
            id = classifier->classify(argument);
    }
    int index = find_live(group_in(slot), id);
    if (index < 0)
        return 0;
    if (cb_callback callback = get(entries_of(group_in(slot))[index].callback); callback != nullptr)
        callback(argument);
    // Looked up anew: the callback may have unregistered the entry, or made the group grow.
    msgQHandle queue = get(entries_of(group_in(slot))[index].queue);
    return queue != nullptr ? post(queue, message) : 0;
}
