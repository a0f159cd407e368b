// SPDX-License-Identifier: Apache-2.0
// The I/O watch thread. `watch_mutex` guards the sets and the table, which daemon threads change and the
// watch thread copies; it is held for copying only, never while the thread waits or calls a
// handler. So a round sees whole sets: one that saw a set
// half rebuilt could wait for nothing, for ever.
#include "utils/iot.h"

#include <pthread.h>
#include <sys/select.h>

#include <cerrno>
#include <cstdarg>

#include "base/thread.h"

#undef iot_notify

static_assert(IOT_DESCRIPTOR_LIMIT == FD_SETSIZE && sizeof(fd_set) == IOT_DESCRIPTOR_LIMIT / 8);

namespace utils {
namespace {

constexpr int kFree = -1;

struct Entry {
    int32_t descriptor = kFree;
    iot_handler handler = nullptr;
    uint32_t watch = 0;
};

struct WatchState {
    fd_set watched{};
    fd_set registered{};
    pthread_t thread{};
    int32_t highest = 0;
    Entry table[IOT_ENTRIES_MAX];
};

Mutex watch_mutex;
WatchState state UTILS_GUARDED_BY(watch_mutex);
iot_notification notification UTILS_GUARDED_BY(watch_mutex) = nullptr;

bool in_range(int descriptor) {
    return descriptor >= 0 && descriptor < IOT_DESCRIPTOR_LIMIT;
}

void raise_highest(int descriptor) UTILS_REQUIRES(watch_mutex) {
    if (descriptor > state.highest)
        state.highest = descriptor;
}

void rebuild() UTILS_REQUIRES(watch_mutex) {
    FD_ZERO(&state.watched);
    state.highest = 0;
    for (const Entry &entry : state.table) {
        if (entry.watch == 0 || entry.descriptor == kFree)
            continue;
        FD_SET(entry.descriptor, &state.watched);
        raise_highest(entry.descriptor);
    }
}

// The descriptors to wait for: those up to the highest one, which is returned. select() leaves
// words beyond its range as they were, where a watched descriptor would pass for a readable one.
int copy_watched(fd_set &set) {
    FD_ZERO(&set);
    MutexLock lock(watch_mutex);
    for (int descriptor = 0; descriptor <= state.highest; ++descriptor) {
        if (FD_ISSET(descriptor, &state.watched))
            FD_SET(descriptor, &set);
    }
    return state.highest;
}

Entry entry_at(int index) {
    MutexLock lock(watch_mutex);
    return state.table[index];
}

// The watch thread: handlers run in the order of the table.
void *watch(void *) {
    for (;;) {
        fd_set ready;
        int highest = copy_watched(ready);
        if (select(highest + 1, &ready, nullptr, nullptr, nullptr) == -1) {
            if (errno == EAGAIN || errno == EINTR)
                continue;
            return nullptr;
        }
        for (int i = 0; i < IOT_ENTRIES_MAX; ++i) {
            Entry entry = entry_at(i);
            if (entry.descriptor >= 0 && FD_ISSET(entry.descriptor, &ready) &&
                entry.handler != nullptr)
                entry.handler(entry.descriptor);
        }
    }
}

}  // namespace
}  // namespace utils

using namespace utils;

int iot_init(iot_notification function) {
    MutexLock lock(watch_mutex);
    state = WatchState{};
    notification = function;
    return 0;
}

int iot_start(void) {
    MutexLock lock(watch_mutex);
    if (pthread_create(&state.thread, nullptr, watch, nullptr) != 0)
        return -1;
    pthread_detach(state.thread);
    return 0;
}

int iot_add(int descriptor, iot_handler handler, unsigned watch) {
    if (!in_range(descriptor))
        return -1;
    MutexLock lock(watch_mutex);
    for (Entry &entry : state.table) {
        if (entry.descriptor != kFree)
            continue;
        FD_SET(descriptor, &state.registered);
        raise_highest(descriptor);
        entry = {descriptor, handler, watch};
        if (watch != 0)
            FD_SET(descriptor, &state.watched);
        return 0;
    }
    return -1;
}

void iot_del(int descriptor) {
    if (!in_range(descriptor))
        return;
    MutexLock lock(watch_mutex);
    for (Entry &entry : state.table) {
        if (entry.descriptor != descriptor)
            continue;
        FD_CLR(descriptor, &state.registered);
        FD_CLR(descriptor, &state.watched);
        entry.descriptor = kFree;
        return;
    }
}

void iot_notify(int kind, ...) {
    if (kind == IOT_NOTIFY_FORWARD) {
        iot_notification function;
        {
            MutexLock lock(watch_mutex);
            function = notification;
        }
        if (function == nullptr)
            return;
        uintptr_t words[7];
        va_list arguments;
        va_start(arguments, kind);
        for (uintptr_t &word : words)
            word = va_arg(arguments, uintptr_t);
        va_end(arguments);
        function(kind, words[0], words[1], words[2], words[3], words[4], words[5], words[6]);
        return;
    }
    MutexLock lock(watch_mutex);
    if (kind == IOT_NOTIFY_REBUILD)
        rebuild();
    else if (kind == IOT_NOTIFY_WATCH_ALL)
        state.watched = state.registered;
}

void iot_exit(void) {
    MutexLock lock(watch_mutex);
    for (Entry &entry : state.table)
        entry.descriptor = kFree;
}
