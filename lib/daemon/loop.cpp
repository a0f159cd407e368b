// SPDX-License-Identifier: Apache-2.0
// The loop: one queue, whose messages the loop's thread serves, and a thread that waits for all
// else and wakes it. Descriptors stand in an epoll set. The watching thread only sees that the set
// has something ready; the loop's thread takes it from there, so that no handler is called for a
// descriptor that it has taken out before.
//
// A wake is a message of one byte, of which one at most waits in the queue; the queue has a place
// more than the daemon asked for. A full queue needs none: the loop looks for work after every
// message. Lock order: `loop_mutex` before the queue's.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "base/deadline.h"
#include "base/heap.h"
#include "base/last_words.h"
#include "base/thread.h"
#include "state.h"

namespace utils::service {
namespace {

constexpr int kBatch = 16;    // descriptors served between two messages
constexpr int kPauseMs = 50;  // until the next try, without memory or descriptors
constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

struct Watch {
    int fd;
    uint32_t serial;  // tells it from a later one of the same descriptor
    daemon_handler handler;
    void *argument;
    Watch *next;
};

struct Deferred {
    void (*call)(void *);
    void *argument;
    Deferred *next;
};

Mutex loop_mutex;
Watch *watches UTILS_GUARDED_BY(loop_mutex) = nullptr;
uint32_t next_serial UTILS_GUARDED_BY(loop_mutex) = 0;
Deferred *deferred UTILS_GUARDED_BY(loop_mutex) = nullptr;
Deferred **deferred_end UTILS_GUARDED_BY(loop_mutex) = &deferred;
bool refusing UTILS_GUARDED_BY(loop_mutex) = false;
bool wake_queued UTILS_GUARDED_BY(loop_mutex) = false;

msgQHandle queue = nullptr;
unsigned char *message = nullptr;  // the loop's buffer
unsigned message_size = 0;
int ready_set = -1, control = -1;  // the epoll set; an eventfd for the watching thread
int listening = -1;                // the command socket; the watching thread's, once it runs
pthread_t watcher;
bool watcher_runs = false;
// Words where they are exchanged, since some processors exchange nothing smaller.
std::atomic<int> work{0};              // for the loop: descriptors or deferred calls
std::atomic<bool> wake_failed{false};  // for want of memory
std::atomic<int> drained{0};           // the loop has looked at the set
std::atomic<bool> accepting{false}, finished{false};

void wake_loop() {
    work.store(1);
    MutexLock lock(loop_mutex);
    RecordLock queue_lock(queue->lock);
    if (wake_queued || queue->queued.count >= queue->maxMsgs) {
        wake_failed.store(false);
        return;
    }
    static const unsigned char kWake = DAEMON_MESSAGE_WAKE;
    wake_queued = msgQSend(queue, &kWake, sizeof kWake) == 0;
    wake_failed.store(!wake_queued);
}

// An orderly stop that takes too long is an end all the same.
[[noreturn]] void end_at_once() {
    SafeText text;
    text << name << ": the loop has not ended in time\n";
    write_until(monotonic_ms() + kReportMs, STDERR_FILENO, text.text(), text.length());
    remove_files();
    _exit(DAEMON_REFUSED);
}

int wait_limit(int64_t stop_end, int64_t accept_ms) {
    int64_t now = monotonic_ms(), next = INT64_MAX;
    if (stop_end > 0)
        next = stop_end;
    if (accept_ms > now && accept_ms < next)
        next = accept_ms;
    if (wake_failed.load() && now + kPauseMs < next)
        next = now + kPauseMs;
    return next == INT64_MAX ? -1 : next > now ? static_cast<int>(next - now) : 0;
}

// Waits for the command socket, the set and the loop's thread.
void *watch(void *) {
    bool set_is_open = true;  // not while the loop has yet to look at it
    int64_t stop_end = 0, accept_ms = 0;
    daemon_guard_thread();
    while (!finished.load()) {
        bool takes = accepting.load() && monotonic_ms() >= accept_ms;
        pollfd set[3] = {{control, POLLIN, 0},
                         {set_is_open ? ready_set : -1, POLLIN, 0},
                         {takes ? listening : -1, POLLIN, 0}};
        if (poll(set, 3, wait_limit(stop_end, accept_ms)) < 0)
            continue;
        uint64_t count;
        if (set[0].revents != 0 && read(control, &count, sizeof count) > 0 &&
            drained.exchange(0) != 0)
            set_is_open = true;
        if (stop_requested() && stop_end == 0) {
            stop_end = monotonic_ms() + DAEMON_STOP_SECONDS * 1000;
            wake_loop();
        }
        if (stop_end > 0 && monotonic_ms() >= stop_end)
            end_at_once();
        if (set[1].revents != 0)
            set_is_open = false;
        if (set[1].revents != 0 || wake_failed.load())
            wake_loop();
        if (set[2].revents != 0 && accepting.load() && !accept_client(listening))
            accept_ms = monotonic_ms() + kPauseMs;
    }
    return nullptr;
}

uint32_t told_events(uint32_t events) {
    return ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP)) != 0 ? DAEMON_READABLE : 0) |
           ((events & EPOLLOUT) != 0 ? DAEMON_WRITABLE : 0) |
           ((events & (EPOLLERR | EPOLLHUP)) != 0 ? DAEMON_BROKEN : 0);
}

Watch **place_of(int fd) UTILS_REQUIRES(loop_mutex) {
    Watch **place = &watches;
    while (*place != nullptr && (*place)->fd != fd)
        place = &(*place)->next;
    return place;
}

// Calls the handler of one ready descriptor, if it is still watched.
void serve_descriptor(const epoll_event &event) {
    int fd = static_cast<int>(event.data.u64 & UINT32_MAX);
    Watch found{};
    {
        MutexLock lock(loop_mutex);
        Watch *watch = *place_of(fd);
        if (watch == nullptr || watch->serial != static_cast<uint32_t>(event.data.u64 >> 32))
            return;
        found = *watch;
    }
    found.handler(fd, told_events(event.events), found.argument);
}

void serve_descriptors() {
    epoll_event events[kBatch];
    int count = epoll_wait(ready_set, events, kBatch, 0);
    for (int i = 0; i < count; ++i)
        serve_descriptor(events[i]);
    drained.store(1);
    kick_watcher();
}

Deferred *take_deferred() {
    MutexLock lock(loop_mutex);
    Deferred *first = deferred;
    deferred = nullptr;
    deferred_end = &deferred;
    return first;
}

void serve_message() {
    if (*message == DAEMON_MESSAGE_WAKE) {
        MutexLock lock(loop_mutex);
        wake_queued = false;
    } else if (*message == TIMER_MESSAGE_TYPE) {
        timer_message expiry;
        memcpy(&expiry, message, sizeof expiry);
        if (expiry.handler != nullptr)
            expiry.handler(expiry.arg1, expiry.arg2);
    } else if (table->message != nullptr) {
        table->message(message, table->argument);
    }
}

int sooner(int a, int b) {
    return a < 0 ? b : b < 0 ? a : a < b ? a : b;
}

}  // namespace

// One more place than was asked for, so that the wake of the watcher is never refused.
bool open_loop() {
    int depth = table->queue_depth > 0 ? table->queue_depth : DAEMON_QUEUE_DEPTH;
    message_size =
        table->message_size > TIMER_MESSAGE_LENGTH ? table->message_size : TIMER_MESSAGE_LENGTH;
    errno = EINVAL;
    if (message_size > MSGQ_LENGTH_MAX || depth == INT32_MAX)
        return false;
    message = static_cast<unsigned char *>(calloc(1, message_size));
    queue = message != nullptr ? msgQCreate(depth + 1, message_size, 0, name) : nullptr;
    ready_set = epoll_create1(EPOLL_CLOEXEC);
    control = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return queue != nullptr && ready_set >= 0 && control >= 0 && daemon_add_queue(queue) == 0 &&
           timer_init_r() == 0;
}

// Starts the thread that watches descriptors, or lets the running one take newcomers.
bool start_watching(int listener) {
    listening = listener;
    accepting.store(listener >= 0);
    if (watcher_runs) {
        kick_watcher();
        return true;
    }
    // The signals that ask for something belong to the other threads.
    sigset_t set, before;
    sigfillset(&set);
    for (int fault : kFaults)
        sigdelset(&set, fault);
    pthread_sigmask(SIG_SETMASK, &set, &before);
    int error = pthread_create(&watcher, nullptr, watch, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    watcher_runs = error == 0;
    errno = error;
    return watcher_runs;
}

void stop_watching() {
    if (!watcher_runs)
        return;
    finished.store(true);
    kick_watcher();
    pthread_join(watcher, nullptr);
    watcher_runs = false;
}

void stop_accepting() {
    accepting.store(false);
}

void kick_watcher() {
    static const uint64_t kOne = 1;
    if (control >= 0) [[maybe_unused]]
        ssize_t written = write(control, &kOne, sizeof kOne);
}

void run_deferred() {
    for (Deferred *at = take_deferred(); at != nullptr;) {
        HeapBlock<Deferred> own(at);
        at = at->next;
        own->call(own->argument);
    }
}

void refuse_deferred() {
    {
        MutexLock lock(loop_mutex);
        refusing = true;
    }
    run_deferred();
}

}  // namespace utils::service

using namespace utils;
using namespace utils::service;

int daemon_step(int timeout_ms) {
    if (stop_requested())
        return 1;
    if (msgQReceive(queue, message, message_size, sooner(timeout_ms, feed_watchdog())) == 0)
        serve_message();
    if (work.exchange(0) != 0) {
        run_deferred();
        if (!stop_requested())
            serve_descriptors();
    }
    return stop_requested() ? 1 : 0;
}

int daemon_loop(void) {
    while (daemon_step(UTILS_WAIT_FOREVER) == 0) {
    }
    return stop_status();
}

msgQHandle daemon_queue(void) {
    return queue;
}

int daemon_watch(int descriptor, uint32_t events, daemon_handler handler, void *argument) {
    if (handler == nullptr || (events & ~(DAEMON_READABLE | DAEMON_WRITABLE)) != 0)
        return UTILS_EINVAL;
    MutexLock lock(loop_mutex);
    Watch **place = place_of(descriptor);
    HeapBlock<Watch> fresh(*place == nullptr ? allocate_zeroed<Watch>() : nullptr);
    if (*place == nullptr && !fresh)
        return UTILS_ENOMEM;
    uint32_t serial = ++next_serial;
    epoll_event wanted{};
    wanted.events = ((events & DAEMON_READABLE) != 0 ? EPOLLIN | EPOLLRDHUP : 0) |
                    ((events & DAEMON_WRITABLE) != 0 ? uint32_t{EPOLLOUT} : 0);
    wanted.data.u64 = uint64_t{serial} << 32 | static_cast<uint32_t>(descriptor);
    // The set forgets a descriptor that is closed; a new one of its number is added again.
    if (epoll_ctl(ready_set, EPOLL_CTL_MOD, descriptor, &wanted) != 0 &&
        (errno != ENOENT || epoll_ctl(ready_set, EPOLL_CTL_ADD, descriptor, &wanted) != 0))
        return -errno;
    Watch *next = fresh ? nullptr : (*place)->next;
    if (fresh)
        *place = fresh.release();
    **place = {descriptor, serial, handler, argument, next};
    return 0;
}

int daemon_unwatch(int descriptor) {
    MutexLock lock(loop_mutex);
    Watch **place = place_of(descriptor);
    if (*place == nullptr)
        return UTILS_ENOENT;
    HeapBlock<Watch> gone(*place);
    *place = gone->next;
    epoll_ctl(ready_set, EPOLL_CTL_DEL, descriptor, nullptr);
    return 0;
}

int daemon_defer(void (*call)(void *argument), void *argument) {
    if (call == nullptr)
        return UTILS_EINVAL;
    auto *fresh = allocate_zeroed<Deferred>();
    if (fresh == nullptr)
        return UTILS_ENOMEM;
    *fresh = {call, argument, nullptr};
    {
        MutexLock lock(loop_mutex);
        if (refusing) {
            free(fresh);
            return UTILS_EAGAIN;
        }
        *deferred_end = fresh;
        deferred_end = &fresh->next;
    }
    wake_loop();
    if (wake_failed.load())
        kick_watcher();
    return 0;
}
