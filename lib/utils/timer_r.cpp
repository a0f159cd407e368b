// SPDX-License-Identifier: Apache-2.0
// The timer service: one mutex around the engine in timer.cpp, and a thread or the platform's I/O
// subsystem that runs the engine's pass when a timer falls due. A closed service is finished, its
// pending timers deleted, by its own thread or by the first call that needs a new one, whichever
// comes first: `service` tells the threads which of them is in charge. Lock order: the timer mutex
// before a message queue's. Broken locking and a lost expiry message end the process, named by
// fixed numbers that support staff know.
#include "utils/timer_r.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <atomic>

#include "base/deadline.h"
#include "base/heap.h"
#include "base/last_words.h"
#include "base/memory_order.h"
#include "base/thread.h"
#include "time_base.h"
#include "timer_pass.h"
#include "utils/platform/ioss.h"

static_assert(sizeof(timer_message) == TIMER_MESSAGE_LENGTH &&
              offsetof(timer_message, time_ms) == 12 && offsetof(timer_message, timer) == 16 &&
              offsetof(timer_message, arg2) == 16 + 3 * sizeof(uintptr_t));

namespace utils {
namespace {

constexpr uint32_t kNotStarted = 0, kByIoSubsystem = 1, kByThread = 2, kClosed = 3;

// A service thread's own record; the thread frees it when it ends.
struct Service {
    pthread_cond_t condition;
    bool timed;      // the thread looks at the chain again when `until` has come, without a wake
    uint32_t until;  // on the millisecond clock
};

bool is_later(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b) > 0;
}

Mutex timer_mutex;
Service *service UTILS_GUARDED_BY(timer_mutex) = nullptr;  // until it is finished
void (*wake_fn)(uintptr_t) UTILS_GUARDED_BY(timer_mutex) = nullptr;
uintptr_t wake_arg UTILS_GUARDED_BY(timer_mutex) = 0;
std::atomic<uint32_t> service_mode{kNotStarted};  // written under the mutex, read first without it
std::atomic<bool> flush_all{false};

[[noreturn]] void fail(int line) {
    abort_within(kFatalMs);
    printf("Assert failure: %s:%d\n", "timer_r", line);
    fflush(stdout);
    abort();
}

void lock_or_fail(int line) UTILS_ACQUIRE(timer_mutex) UTILS_NO_THREAD_SAFETY_ANALYSIS {
    if (timer_mutex.lock() != 0)
        fail(line);
}

void unlock_or_fail(int line) UTILS_RELEASE(timer_mutex) UTILS_NO_THREAD_SAFETY_ANALYSIS {
    if (timer_mutex.unlock() != 0)
        fail(line);
}

void signal_service(uintptr_t condition) {
    if (pthread_cond_signal(reinterpret_cast<pthread_cond_t *>(condition)) != 0)
        fail(286);
}

void wake_service() UTILS_REQUIRES(timer_mutex) {
    if (wake_fn != nullptr)
        wake_fn(wake_arg);
}

// Ends a closed service in place of its thread, which may be busy in a handler.
void finish_closed_service() UTILS_REQUIRES(timer_mutex) {
    if (service_mode.load(kRelaxed) != kClosed)
        return;
    wake_fn = nullptr;
    service = nullptr;
    ++timer_pass_epoch;
    timer_cleanup();
    service_mode.store(kNotStarted, kRelaxed);
}

bool in_charge(const Service *mine) UTILS_REQUIRES(timer_mutex) {
    return service == mine && service_mode.load(kRelaxed) == kByThread;
}

// One wait of the service thread, without limit when that is negative. Its result is pthread's.
int wait_once(Service *mine, int timeout_ms) UTILS_REQUIRES(timer_mutex) {
    int result = 0;
    if (timeout_ms < 0) {
        result = pthread_cond_wait(&mine->condition, timer_mutex.native());
    } else {
        timespec deadline = deadline_after(timeout_ms);
        result = pthread_cond_timedwait(&mine->condition, timer_mutex.native(), &deadline);
    }
    if (result != 0 && result != ETIMEDOUT && result != EINTR)
        fail(211);
    return result;
}

// Waits for the first timer. Whether it is due; otherwise the thread was woken. When the first
// timer has become a later one, which wakes nobody, the wait goes on to that one's own due time: a
// pass would fire it up to 50 ms early.
bool waited(Service *mine, int timeout_ms) UTILS_REQUIRES(timer_mutex) {
    for (;;) {
        timerHandle first = timer_gethead();
        uint32_t until = first != nullptr ? first->expiry : 0;
        mine->timed = first != nullptr;
        mine->until = until;
        if (wait_once(mine, timeout_ms) != ETIMEDOUT || !in_charge(mine))
            return false;
        first = timer_gethead();
        if (first == nullptr || !is_later(first->expiry, until))
            return true;
        timeout_ms = static_cast<int>(first->expiry - now_ms());
        if (timeout_ms <= 0)
            return true;
    }
}

// Serves timers until another service is in charge, and owns its record to the end.
void *service_thread(void *own) {
    auto *mine = static_cast<Service *>(own);
    lock_or_fail(183);
    while (in_charge(mine)) {
        int timeout_ms = timer_gettimeout();
        bool due = timeout_ms == 0 || waited(mine, timeout_ms);
        if (due && in_charge(mine))
            timer_callback();
    }
    if (service == mine)
        finish_closed_service();
    timer_mutex.unlock();
    pthread_cond_destroy(&mine->condition);
    free(mine);
    return nullptr;
}

// The real-time policy takes effect where the system lets a thread choose its own.
int start_thread(Service *own) {
    pthread_attr_t attributes;
    // GCOVR_EXCL_START: for a C library whose attributes need memory
    if (int error = pthread_attr_init(&attributes); error != 0)
        return error;
    // GCOVR_EXCL_STOP
    int error = pthread_attr_setschedpolicy(&attributes, SCHED_FIFO);
    if (error == 0)
        error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    if (error == 0)
        error = pthread_create(&thread, &attributes, service_thread, own);
    pthread_attr_destroy(&attributes);
    return error;
}

// Starts the thread at the first timer, and again at the first one after a close.
int start_service() UTILS_REQUIRES(timer_mutex) {
    finish_closed_service();
    if (service_mode.load(kRelaxed) != kNotStarted)
        return UTILS_OK;
    auto *fresh = allocate_zeroed<Service>();
    if (fresh == nullptr)
        return UTILS_ERROR;
    bool has_condition = init_monotonic(&fresh->condition) == 0;
    if (!has_condition || start_thread(fresh) != 0) {
        if (has_condition)
            pthread_cond_destroy(&fresh->condition);
        free(fresh);
        return UTILS_ERROR;
    }
    service = fresh;
    wake_fn = signal_service;
    wake_arg = reinterpret_cast<uintptr_t>(&fresh->condition);
    service_mode.store(kByThread, kRelaxed);
    return UTILS_OK;
}

// A queue that refuses the message ends the process, whatever its own report of that waits for.
void post(msgQHandle queue, const timer_message &message) {
    RecordLock lock(queue->lock);
    if (queue->queued.count >= queue->maxMsgs || queue->maxMsgLength < sizeof message)
        abort_within(kFatalMs);
    if (msgQSend(queue, &message, sizeof message, 0, 1) != 0)
        fail(275);
}

// Delivers a timer that has fired; the engine calls it in place of the handler, mutex held.
void deliver(timerHandle timer, uintptr_t queue, timerHandler handler, uintptr_t arg1,
             uintptr_t arg2) UTILS_NO_THREAD_SAFETY_ANALYSIS {
    if (flush_all.load(kRelaxed))
        return;
    if (queue != 0) {
        timer_message message{};
        message.type = TIMER_MESSAGE_TYPE;
        message.time_ms = now_ms();
        message.timer = timer;
        message.handler = handler;
        message.arg1 = arg1;
        message.arg2 = arg2;
        post(reinterpret_cast<msgQHandle>(queue), message);
    } else if (handler != nullptr) {
        unlock_or_fail(261);
        handler(arg1, arg2);
        lock_or_fail(264);
    }
}

// What the two creations share, with their words about a failure.
timerHandle create(msgQHandle queue, timerHandler handler, uintptr_t arg1, uintptr_t arg2,
                   bool periodic) {
    if (timer_init_r() != 0) {
        printf("Timer failure: %s:%d\n", "timer_r", 404);
        return nullptr;
    }
    if (timer_mutex.lock() != 0) {
        printf("Timer failure: %s:%d\n", "timer_r", 409);
        return nullptr;
    }
    timerHandle timer =
        periodic ? timer_create_periodic(handler, arg1, arg2) : timer_create(handler, arg1, arg2);
    if (timer != nullptr)
        timer_setulh(timer, reinterpret_cast<uintptr_t>(queue), deliver);
    unlock_or_fail(424);
    return timer;
}

// Runs an engine operation under the mutex. `line` names a failure to release it.
template <typename Operation>
int locked(int line, Operation operation) {
    if (timer_mutex.lock() != 0)
        return UTILS_ERROR;
    int result = operation();
    unlock_or_fail(line);
    return result;
}

// What falls due first.
struct Earliest {
    timerHandle timer;
    uint32_t expiry;

    static Earliest now() UTILS_REQUIRES(timer_mutex) {
        timerHandle first = timer_gethead();
        return {first, first != nullptr ? first->expiry : 0};
    }
    bool operator==(const Earliest &) const = default;
};

// Tells the service what falls due first. Its thread looks again when its wait is over, so a later
// time need not wake it; an I/O loop keeps the time that it was told.
void tell_service(const Earliest &first) UTILS_REQUIRES(timer_mutex) {
    if (service != nullptr) {
        bool in_time = service->timed && !is_later(service->until, first.expiry);
        if (first.timer != nullptr && in_time)
            return;
        service->timed = first.timer != nullptr;
        service->until = first.expiry;
    }
    wake_service();
}

// As `locked`, for operations that may change what falls due first.
template <typename Operation>
int locked_and_woken(int line, Operation operation) {
    return locked(line, [&]() UTILS_NO_THREAD_SAFETY_ANALYSIS {
        Earliest before = Earliest::now();
        int result = operation();
        if (Earliest first = Earliest::now(); result == 0 && !(first == before))
            tell_service(first);
        return result;
    });
}

// Whether the timer, whose memory may be gone, is on the chain.
bool pending(timerHandle timer) UTILS_REQUIRES(timer_mutex) {
    timerHandle found = timer_gethead();
    while (found != nullptr && found != timer)
        found = found->next;
    return found != nullptr;
}

// A timer that was pending at the close goes with its service, and is no longer valid then.
int set_timer(timerHandle timer, uint32_t ms) UTILS_REQUIRES(timer_mutex) {
    if (service_mode.load(kRelaxed) == kClosed) {
        bool doomed = pending(timer);
        finish_closed_service();
        if (doomed)
            return UTILS_ERROR;
    }
    return timer_set(timer, ms);
}

// Called by the I/O subsystem: fires what is due and says when to come back.
int poll_timers(void *, int32_t *descriptor, int32_t *timeout_ms) {
    *descriptor = -1;
    lock_or_fail(90);
    int timeout = timer_gettimeout();
    for (; timeout == 0; timeout = timer_gettimeout())
        timer_callback();
    timer_mutex.unlock();
    *timeout_ms = timeout < 0 ? 0 : timeout;
    return 0;
}

}  // namespace
}  // namespace utils

using namespace utils;

int timer_init_r(void) {
    uint32_t mode = service_mode.load(kRelaxed);
    if (mode == kByThread || mode == kByIoSubsystem)
        return UTILS_OK;
    if (timer_mutex.lock() != 0)
        return UTILS_ERROR;
    int result = start_service();
    timer_mutex.unlock();
    return result;
}

timerHandle timer_create_r(msgQHandle queue, timerHandler handler, uintptr_t arg1, uintptr_t arg2) {
    return create(queue, handler, arg1, arg2, false);
}

timerHandle timer_create_periodic_r(msgQHandle queue, timerHandler handler, uintptr_t arg1,
                                    uintptr_t arg2) {
    return create(queue, handler, arg1, arg2, true);
}

timerHandle createTimer(msgQHandle queue, uintptr_t, timerHandler handler, uintptr_t arg1,
                        uintptr_t arg2, int periodic) {
    return create(queue, handler, arg1, arg2, periodic == 1);
}

timerHandle createTimerCB(timerHandler handler, uintptr_t ignored, uintptr_t arg1, uintptr_t arg2,
                          int periodic) {
    return handler != nullptr ? createTimer(nullptr, ignored, handler, arg1, arg2, periodic)
                              : nullptr;
}

int timer_set_r(timerHandle timer, uint32_t ms) {
    return locked_and_woken(476,
                            [&]() UTILS_NO_THREAD_SAFETY_ANALYSIS { return set_timer(timer, ms); });
}

int timer_cancel_r(timerHandle timer) {
    return locked_and_woken(510, [&] { return timer_cancel(timer); });
}

int timer_cancelx_r(timerHandle timer) {
    return locked_and_woken(510, [&] { return timer_cancelx(timer); });
}

int timer_delete_r(timerHandle timer) {
    return locked(555, [&] { return timer_delete(timer); });
}

int timer_modhandler_r(timerHandle timer, timerHandler handler) {
    return locked(660, [&] { return timer_modhandler(timer, handler); });
}

int timer_ticking_r(timerHandle timer) {
    lock_or_fail(632);
    int ticking = timer_ticking(timer);
    unlock_or_fail(637);
    return ticking;
}

void timer_flush_r(void) {
    flush_all.store(true, kRelaxed);
}

int timer_close_r(void) {
    lock_or_fail(607);
    if (service_mode.load(kRelaxed) == kByThread)
        service_mode.store(kClosed, kRelaxed);
    wake_service();
    unlock_or_fail(620);
    return UTILS_OK;
}

int timer_ioss_create(void *ioss_arg, void (*wake)(uintptr_t), uintptr_t wakeArg) {
    lock_or_fail(110);
    finish_closed_service();
    if (service_mode.load(kRelaxed) != kNotStarted)
        fail(115);
    int result = UTILS_OK;
    if (ioss_create(ioss_arg, poll_timers, 0, 0, 0) != 0) {
        perror("timer_ioss_create: ioss_create failed");
        result = UTILS_ENOMEM;
    } else {
        service_mode.store(kByIoSubsystem, kRelaxed);
        wake_fn = wake;
        wake_arg = wakeArg;
    }
    timer_mutex.unlock();
    return result;
}

int timer_ioss_free(void *handle) {
    uintptr_t first = 0;
    if (handle != nullptr)
        memcpy(&first, handle, sizeof first);
    if (first == 0)
        fail(141);
    lock_or_fail(144);
    wake_fn = nullptr;
    ioss_free(handle);
    timer_mutex.unlock();
    return UTILS_OK;
}
