// SPDX-License-Identifier: Apache-2.0
// The I/O subsystem: a poll() loop. The loop's thread owns its tables; other threads only wake or
// stop it, through an eventfd and an atomic flag. The mutex guards the poll callbacks, which
// another thread may register or take back while the loop runs.
#include "utils/platform/posix/loop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "base/deadline.h"
#include "base/retry.h"
#include "base/thread.h"

using namespace utils;

namespace {

constexpr int kMaxWatches = 64;
constexpr int kMaxPolls = 4;
constexpr uintptr_t kMarker = 0x696F7373;  // "ioss": the first word of a live loop

struct Watch {
    int descriptor;
    ioss_ready ready;
    void *arg;
};

struct Poll {
    ioss_poll function;
    void *arg;
};

// The smaller of two time-outs, where a negative one has no limit.
int sooner(int a, int b) {
    if (a < 0 || b < 0)
        return a < 0 ? b : a;
    return a < b ? a : b;
}

}  // namespace

struct ioss_loop {
    uintptr_t marker;
    int wake;
    std::atomic<int> stopping;  // a word: some processors exchange nothing smaller
    int watch_count;
    Watch watches[kMaxWatches];
    Mutex polls_mutex;
    Poll polls[kMaxPolls] UTILS_GUARDED_BY(polls_mutex);
};

namespace {

// Runs every poll callback; milliseconds until one wants to run again, -1 without limit.
int run_polls(ioss_loop &loop) {
    int timeout = -1;
    for (int i = 0; i < kMaxPolls; ++i) {
        Poll poll{};
        {
            MutexLock lock(loop.polls_mutex);
            poll = loop.polls[i];
        }
        if (poll.function == nullptr)
            continue;
        int32_t descriptor = -1, wanted = 0;
        poll.function(poll.arg, &descriptor, &wanted);
        timeout = sooner(timeout, wanted > 0 ? wanted : -1);
    }
    return timeout;
}

void drain(int wake) {
    uint64_t count = 0;
    retry([&] { return read(wake, &count, sizeof count); });
}

// Waits once and serves what is ready. 0, or -1 when poll() fails.
int serve(ioss_loop &loop, int timeout_ms) {
    pollfd ready[kMaxWatches + 1];
    int count = loop.watch_count;
    ready[0] = {loop.wake, POLLIN, 0};
    for (int i = 0; i < count; ++i)
        ready[i + 1] = {loop.watches[i].descriptor, POLLIN, 0};
    int found = poll(ready, static_cast<nfds_t>(count) + 1, timeout_ms);
    if (found < 0)
        return errno == EINTR ? 0 : -1;
    if (ready[0].revents != 0)
        drain(loop.wake);
    for (int i = 1; i <= count && found > 0; ++i) {
        // A callback before this one may have taken the watch back, so it is looked up again.
        for (int w = 0; ready[i].revents != 0 && w < loop.watch_count; ++w) {
            Watch watch = loop.watches[w];
            if (watch.descriptor == ready[i].fd) {
                watch.ready(watch.arg, watch.descriptor);
                break;
            }
        }
    }
    return 0;
}

}  // namespace

ioss_loop *ioss_loop_create(void) {
    void *room = calloc(1, sizeof(ioss_loop));
    int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (room == nullptr || wake < 0) {
        if (wake >= 0)
            close(wake);
        free(room);
        return nullptr;
    }
    auto *loop = ::new (room) ioss_loop{};
    loop->marker = kMarker;
    loop->wake = wake;
    return loop;
}

void ioss_loop_destroy(ioss_loop *loop) {
    if (loop == nullptr)
        return;
    close(loop->wake);
    loop->marker = 0;
    free(loop);
}

int ioss_watch(ioss_loop *loop, int descriptor, ioss_ready ready, void *arg) {
    if (loop->watch_count == kMaxWatches || descriptor < 0 || ready == nullptr)
        return -1;
    loop->watches[loop->watch_count++] = {descriptor, ready, arg};
    return 0;
}

void ioss_unwatch(ioss_loop *loop, int descriptor) {
    for (int i = 0; i < loop->watch_count; ++i) {
        if (loop->watches[i].descriptor == descriptor) {
            loop->watches[i] = loop->watches[--loop->watch_count];
            return;
        }
    }
}

void ioss_wake(uintptr_t loop) {
    uint64_t one = 1;
    int wake = reinterpret_cast<ioss_loop *>(loop)->wake;
    retry([&] { return write(wake, &one, sizeof one); });
}

void ioss_stop(ioss_loop *loop) {
    loop->stopping.store(1);
    ioss_wake(reinterpret_cast<uintptr_t>(loop));
}

int ioss_run(ioss_loop *loop, int limit_ms) {
    int64_t end = monotonic_ms() + (limit_ms > 0 ? limit_ms : 0);
    while (!loop->stopping.exchange(0)) {
        int timeout = run_polls(*loop);
        if (limit_ms >= 0) {
            int64_t left = end - monotonic_ms();
            if (left <= 0)
                return 0;
            timeout = sooner(timeout, static_cast<int>(left));
        }
        if (loop->stopping.exchange(0))
            return 0;
        if (serve(*loop, timeout) != 0)
            return -1;
    }
    return 0;
}

int ioss_create(void *arg, ioss_poll poll, uintptr_t, uintptr_t, uintptr_t) {
    auto *loop = static_cast<ioss_loop *>(arg);
    errno = EINVAL;
    if (loop == nullptr || loop->marker != kMarker || poll == nullptr)
        return -1;
    MutexLock lock(loop->polls_mutex);
    for (Poll &place : loop->polls) {
        if (place.function == nullptr) {
            place = {poll, arg};
            return 0;
        }
    }
    errno = ENOSPC;
    return -1;
}

int ioss_free(void *handle) {
    auto *loop = static_cast<ioss_loop *>(handle);
    if (loop == nullptr || loop->marker != kMarker)
        return -1;
    MutexLock lock(loop->polls_mutex);
    for (Poll &place : loop->polls)
        place = Poll{};
    return 0;
}
