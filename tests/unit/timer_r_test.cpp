// SPDX-License-Identifier: Apache-2.0
// The timer service: its thread, an I/O loop in its place, restarts, and failures with their numbers.
// Every test runs in a child: the service is one per process, and some of its states are for life.
#include "utils/timer_r.h"

#include "support/support.h"
#include "utils/lst.h"
#include "utils/platform/posix/loop.h"

namespace {

using support::eventually;
using support::monotonic_ms;
using support::threads;

// Threads of another policy would need rights.
[[maybe_unused]] const int replaced =
    (support::replace_call(
         "pthread_attr_setschedpolicy",
         [](pthread_attr_t *, int policy) { return policy != SCHED_FIFO ? EINVAL : 0; }),
     0);
ioss_loop *loop;
std::atomic<int> calls{0}, wakes{0};  // of handlers, and of the loop

void count(uintptr_t, uintptr_t) {
    ++calls;
}

// A timer that calls the handler without a queue, armed for `ms`.
timerHandle arm(timerHandler handler, uint32_t ms, uintptr_t number = 0, int periodic = 0) {
    timerHandle timer = createTimerCB(handler, 0, number, 0, periodic);
    EXPECT_EQ(timer_set_r(timer, ms), 0);
    return timer;
}

int use_loop(void (*wake)(uintptr_t) = ioss_wake) {
    loop = ioss_loop_create();
    return timer_ioss_create(loop, wake, reinterpret_cast<uintptr_t>(loop));
}

// A test in a child, where the thread or the loop serves timers.
enum { kByThread, kByLoop };
#define CHILD_TEST(name, by)                                       \
    void name();                                                   \
    TEST(TimerR, name) {                                           \
        if (by == kByLoop && !support::is_stand_in("ioss_create")) \
            GTEST_SKIP() << "the loop is the platform's own";      \
        EXPECT_TRUE(support::passes_in_child([] {                  \
            alarm(300);                                            \
            EXPECT_EQ(by == kByLoop ? use_loop() : 0, 0);          \
            name();                                                \
        }));                                                       \
    }                                                              \
    void name()

CHILD_TEST(PostsExpiryMessagesToTheQueue, kByThread) {
    msgQHandle queue = msgQCreate(10, TIMER_MESSAGE_LENGTH, 0, "events");
    timerHandle once = timer_create_r(queue, count, 11, 12);
    timerHandle often = createTimer(queue, 0, count, 21, 22, 1);
    ASSERT_EQ(timer_set_r(often, 60), 0);
    ASSERT_EQ(timer_set_r(once, 100), 0);
    int from_once = 0, from_often = 0;
    uint32_t last = 0;
    while (from_once < 1 || from_often < 4) {
        timer_message message;
        memset(&message, 0xEE, sizeof message);
        ASSERT_EQ(msgQReceive(queue, &message, sizeof message, 10000), 0);
        ASSERT_EQ(message.type, TIMER_MESSAGE_TYPE);
        ASSERT_EQ(message.zero, 0u);
        ASSERT_EQ(message.zero_byte, 0);
        ASSERT_EQ(message.handler, count);
        ASSERT_TRUE(last == 0 || message.time_ms - last < 10000u);
        last = message.time_ms;
        ++(message.timer == once ? from_once : from_often);
        ASSERT_EQ(message.arg1, message.timer == once ? 11u : 21u);
        ASSERT_EQ(message.arg2, message.arg1 + 1);
    }
    EXPECT_EQ(from_once, 1);
    EXPECT_EQ(calls, 0) << "the receiver runs the handler";
    EXPECT_EQ(timer_ticking_r(once), 0);
    EXPECT_EQ(timer_ticking_r(often), 1);
    EXPECT_EQ(timer_modhandler_r(often, count), -1);
    EXPECT_EQ(timer_modhandler_r(once, nullptr), 0);
    EXPECT_EQ(timer_cancelx_r(often), 0);
    EXPECT_EQ(timer_cancelx_r(often), -1);
    EXPECT_EQ(timer_cancel_r(often), 0);
    EXPECT_EQ(timer_delete_r(often), 0);
    EXPECT_EQ(timer_delete_r(once), 0);
    timer_close_r();
}

CHILD_TEST(DirectHandlersMayUseTheWholeFamily, kByThread) {
    static timerHandle self, next;
    timerHandler hand_over = [](uintptr_t, uintptr_t) {
        EXPECT_EQ(timer_set_r(next, 50), 0);
        EXPECT_EQ(timer_delete_r(self), 0);
        ++calls;
    };
    next = timer_create_r(nullptr, count, 0, 0);
    self = createTimerCB(hand_over, 0, 0, 0, 0);
    timer_set_r(self, 50);
    EXPECT_TRUE(eventually([] { return calls == 2; }));
    EXPECT_EQ(createTimerCB(nullptr, 0, 0, 0, 0), nullptr);
}

CHILD_TEST(CloseDeletesWhatIsArmedAndTheNextCreateStartsAgain, kByThread) {
    timerHandle idle = timer_create_r(nullptr, count, 0, 0);
    arm(count, 1000000, 0, 1);
    int running = threads();
    timer_close_r();
    // The question about the idle timer passes the mutex, as the thread's last words do.
    EXPECT_TRUE(eventually([&] { return timer_ticking_r(idle) == 0 && threads() < running; }));
    EXPECT_EQ(timer_gethead(), nullptr);
    arm(count, 1000000);
    timer_set_r(idle, 60);  // due first, so the service wakes for it
    EXPECT_TRUE(eventually([] { return calls == 1; }));
}

// What is set after a close lives with the new service, though the old thread, and with it a pass,
// still waits in a handler. That thread then ends, while everything due is left to the new one.
CHILD_TEST(ANewServiceOwesNothingToTheOldThread, kByThread) {
    static int entered[2], left[2][2];  // pipes
    static pthread_t served;
    for (int *ends : {entered, left[0], left[1]})
        ASSERT_EQ(pipe(ends), 0);
    timerHandler stay = [](uintptr_t number, uintptr_t) {
        char byte = 0;
        served = pthread_self();
        EXPECT_EQ(write(entered[1], &byte, 1), 1);
        EXPECT_EQ(read(left[number][0], &byte, 1), 1);
    };
    timerHandler serve = [](uintptr_t, uintptr_t) {
        served = pthread_self();
        ++calls;
    };
    char byte = 0;
    timerHandle armed = arm(count, 1000000);
    arm(stay, 0);
    EXPECT_EQ(read(entered[0], &byte, 1), 1);
    timer_close_r();
    EXPECT_EQ(timer_set_r(armed, 0), -1) << "it went with the service that was closed";
    arm(stay, 0, 1);
    EXPECT_EQ(read(entered[0], &byte, 1), 1);
    pthread_t successor = served;
    arm(serve, 0);
    int both = threads();
    EXPECT_EQ(write(left[0][1], &byte, 1), 1);
    EXPECT_TRUE(eventually([&] { return threads() < both; }));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(write(left[1][1], &byte, 1), 1);
    EXPECT_TRUE(eventually([] { return calls == 1; }));
    EXPECT_TRUE(pthread_equal(served, successor));
}

CHILD_TEST(ThreeHundredRestartsLoseNoTimer, kByThread) {
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done)
            EXPECT_EQ(timer_delete_r(timer_create_r(nullptr, count, 0, 0)), 0);
    });
    msgQHandle queue = msgQCreate(1, TIMER_MESSAGE_LENGTH, 0, "events");
    timer_message event;
    for (int round = 0; round < 300; ++round) {
        timerHandle timer = timer_create_r(queue, nullptr, 0, 0);
        timer_set_r(timer, 0);
        EXPECT_EQ(msgQReceive(queue, &event, sizeof event, 10000), 0) << round;
        EXPECT_EQ(timer_delete_r(timer), 0);
        timer_set_r(timer_create_r(queue, nullptr, 0, 0), 1000000);
        timer_close_r();
    }
    done = true;
    other.join();
}

#ifndef __SANITIZE_THREAD__  // keeps pthread_cond_signal() for itself
// Whom a change of the first due time wakes: the service's own thread, and an I/O loop.
TEST(TimerR, WakesWhenTheFirstDueTimeChanges) {
    static timerHandle a, b;
    struct {
        const char *what;
        std::function<int()> call;
        int by_thread, by_loop;
    } steps[] = {
        {"the first timer", [] { return timer_set_r(a, 300000); }, 1, 1},
        {"the same one, earlier", [] { return timer_set_r(a, 200000); }, 1, 1},
        {"the same one, later", [] { return timer_set_r(a, 300000); }, 0, 1},
        {"one behind it", [] { return timer_set_r(b, 400000); }, 0, 0},
        {"not the first any more", [] { return timer_cancel_r(b); }, 0, 0},
        {"none is left", [] { return timer_cancelx_r(a); }, 1, 1},
        {"a close", [] { return timer_close_r(); }, 1, 1},
        {"the end", [] { return loop != nullptr ? timer_ioss_free(loop) : 0; }, 0, 0},
        {"one that nobody serves", [] { return timer_set_r(a, 100000); }, 0, 0},
    };
    for (bool by_thread : {true, false}) {
        if (!by_thread && !support::is_stand_in("ioss_create"))
            continue;
        EXPECT_TRUE(support::passes_in_child([&] {
            if (!by_thread)
                use_loop([](uintptr_t) { ++wakes; });
            a = timer_create_r(nullptr, count, 0, 0);
            b = timer_create_r(nullptr, count, 0, 0);
            auto all_wakes = [] {
                return wakes + utils_testing_count_calls("pthread_cond_signal");
            };
            for (auto &step : steps) {
                int before = all_wakes();
                EXPECT_EQ(step.call(), 0) << step.what;
                int expected = by_thread ? step.by_thread : step.by_loop;
                EXPECT_EQ(all_wakes() - before, expected) << step.what;
            }
        }));
    }
}
#endif

// Nobody wakes the thread for a first timer that falls due later: its time-out for the one before
// must not fire it early. A machine that is too slow to cancel that one in time gets more of it.
CHILD_TEST(AStaleTimeOutWaitsOnForTheNextTimer, kByThread) {
    static int64_t begin;
    static std::atomic<uint32_t> took{0};
    timerHandle first = timer_create_r(nullptr, count, 0, 0);
    timerHandler note = [](uintptr_t, uintptr_t) {
        took = static_cast<uint32_t>(monotonic_ms() - begin);
    };
    timerHandle next = createTimerCB(note, 0, 0, 0, 0);
    bool in_time = false;
    for (uint32_t ms = 100; !in_time; ms *= 4) {
        begin = monotonic_ms();
        timer_set_r(first, ms);
        timer_set_r(next, ms + 40);
        // By then the thread waits for the first one.
        EXPECT_TRUE(eventually([] { return monotonic_ms() - begin >= 10; }));
        in_time = timer_cancelx_r(first) == 0;
        EXPECT_TRUE(eventually([] { return took != 0; }, 100000));
        if (in_time) {
            EXPECT_GE(took, ms + 39);
        }
        took = 0;
    }
}

// A daemon's own loop: a pipe is served and timers fire on the loop's thread, no service thread
// runs.
CHILD_TEST(TheIoLoopDrivesTimersAndDescriptors, kByLoop) {
    static pthread_t here = pthread_self();
    static timerHandle often;
    static char byte = 0;
    auto serve = [](void *arg, int fd) {
        EXPECT_EQ(arg, &byte);
        EXPECT_EQ(read(fd, &byte, 1), 1);
        timer_set_r(often, 50);
    };
    timerHandler stop_at_the_third = [](uintptr_t, uintptr_t) {
        EXPECT_TRUE(pthread_equal(pthread_self(), here));
        if (++calls == 3) {
            timer_cancel_r(often);
            ioss_stop(loop);
        }
    };
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(ioss_watch(loop, ends[0], serve, &byte), 0);
    often = createTimerCB(stop_at_the_third, 0, 0, 0, 1);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(ioss_run(loop, 20000), 0);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(timer_ioss_free(loop), 0);
    timer_set_r(often, 50);
    EXPECT_EQ(ioss_run(loop, 80), 0);
    EXPECT_EQ(calls, 3) << "the loop no longer drives timers";
    ioss_loop_destroy(loop);
}

CHILD_TEST(WakesABlockedLoopFromAnotherThreadAndDeliversNothingAfterAFlush, kByLoop) {
    int64_t begin = monotonic_ms();
    std::thread setter([before = utils_testing_count_calls("poll")] {
        EXPECT_TRUE(eventually([=] { return utils_testing_count_calls("poll") > before; }));
        arm([](uintptr_t, uintptr_t) { ioss_stop(loop); }, 100);
    });
    EXPECT_EQ(ioss_run(loop, 60000), 0);
    EXPECT_LT(monotonic_ms() - begin, 30000);
    setter.join();
    timerHandle often = arm(count, 50, 0, 1);
    uint32_t expiry = often->expiry;
    timer_flush_r();
    EXPECT_EQ(ioss_run(loop, 150), 0);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(timer_ticking_r(often), 1);
    EXPECT_NE(often->expiry, expiry) << "it runs down all the same";
}

// Three readable pipes: the first takes the second back, the third ends the round.
TEST(TimerR, TheIoLoopServesWhatIsWatchedUntilItIsTakenBack) {
    static int ends[3][2];
    static std::string order;
    loop = ioss_loop_create();
    auto serve = [](void *name, int) {
        order += static_cast<char *>(name);
        order == "a" ? ioss_unwatch(loop, ends[1][0]) : ioss_stop(loop);
    };
    char names[3][2] = {"a", "b", "c"}, byte;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(pipe(ends[i]), 0);
        ASSERT_EQ(write(ends[i][1], "x", 1), 1);
        EXPECT_EQ(ioss_watch(loop, ends[i][0], serve, names[i]), 0);
    }
    EXPECT_EQ(ioss_watch(loop, -1, serve, names), -1);
    EXPECT_EQ(ioss_watch(loop, 0, nullptr, names), -1);
    EXPECT_EQ(ioss_run(loop, 20000), 0);
    EXPECT_EQ(ioss_run(loop, 0), 0) << "without time nothing is served";
    EXPECT_EQ(order, "ac");
    EXPECT_EQ(read(ends[2][0], &byte, 1), 1);
    for (int i : {0, 2, 2})  // once more than it is watched
        ioss_unwatch(loop, ends[i][0]);
    std::thread stopper([waits = utils_testing_count_calls("poll")] {
        EXPECT_TRUE(eventually([=] { return utils_testing_count_calls("poll") > waits; }));
        ioss_stop(loop);
    });
    EXPECT_EQ(ioss_run(loop, -1), 0);
    stopper.join();
    utils_testing_fail_call("poll", 1, EINTR, 1);
    EXPECT_EQ(ioss_run(loop, 1), 0);
    utils_testing_fail_call("poll", 1, ENOMEM, 1);
    EXPECT_EQ(ioss_run(loop, 1000), -1);
    int watches = 0;
    for (; watches < 100 && ioss_watch(loop, 0, serve, names) == 0;)
        ++watches;
    EXPECT_EQ(watches, 64);
    ioss_loop_destroy(loop);
    utils_testing_reset();
    for (auto &pair : ends) {
        EXPECT_EQ(close(pair[0]), 0);
        EXPECT_EQ(close(pair[1]), 0);
    }
}

std::string died_at(int line) {
    return "Assert failure: timer_r:" + std::to_string(line) + "\n";
}

// Calls that end the process, or give -1, by misuse or because a function fails under them: the
// nth time from then on.
TEST(TimerR, MisuseAndBrokenLockingAreFatalOrRefused) {
    static timerHandle t;
    static uintptr_t zero = 0;
    static const auto create = [] {
        return timer_create_r(nullptr, count, 0, 0) != nullptr ? 0 : -1;
    };
    static const auto fire = [] { return timer_set_r(t, 0), ioss_run(loop, 20000); };
    static const char *const kLock = "pthread_mutex_lock";
    const char *const kNone = "fsync", *const kUnlock = "pthread_mutex_unlock",
                      *const kStart = "pthread_attr_setschedpolicy";
    // Somebody else starts the service while this thread waits for the mutex.
    [[maybe_unused]] static const auto start_second = [] {
        support::replace_call(kLock, [](pthread_mutex_t *mutex) {
            EXPECT_EQ(timer_init_r(), 0);
            return pthread_mutex_lock(mutex);
        });
        return timer_init_r() - 1;
    };
    struct {
        int by;
        std::string printed;
        const char *function;
        int nth;
        std::function<int()> call;
    } cases[] = {
        {kByThread, died_at(115), kNone, 1,
         [] { return timer_init_r() + timer_ioss_create(nullptr, nullptr, 0); }},
        {kByThread, died_at(141), kNone, 1, [] { return timer_ioss_free(nullptr); }},
        {kByThread, died_at(141), kNone, 1, [] { return timer_ioss_free(&zero); }},
        {kByThread, "queue full: queue full (miss=1)\n" + died_at(275), kNone, 1,
         [] {
             msgQHandle queue = msgQCreate(1, TIMER_MESSAGE_LENGTH, 0, "full");
             return timer_set_r(timer_create_periodic_r(queue, count, 0, 0), 50) + pause();
         }},
        {kByThread, died_at(183), kLock, 2, [] { return timer_init_r() + pause(); }},
        {kByThread, "Timer failure: timer_r:404\n", kStart, 1, create},
        {kByThread, "", kStart, 1, [] { return timer_init_r() - create(); }},
        {kByThread, "", kLock, 1, [] { return timer_init_r(); }},
#ifndef __SANITIZE_THREAD__  // keeps conditions for itself, and knows no lock inside a lock
        {kByThread, "", kNone, 1, start_second},
        {kByThread, died_at(286), "pthread_cond_signal", 1,
         [] { return arm(count, 9) == nullptr; }},
#endif
        {kByLoop, died_at(90), kLock, 3, fire},
        {kByLoop, died_at(110), kLock, 1, [] { return timer_ioss_create(loop, ioss_wake, 0); }},
        {kByLoop, died_at(144), kLock, 1, [] { return timer_ioss_free(loop); }},
        {kByLoop, died_at(261), kUnlock, 3, fire},
        {kByLoop, died_at(264), kLock, 4, fire},
        {kByLoop, died_at(424), kUnlock, 1, create},
        {kByLoop, died_at(476), kUnlock, 1, [] { return timer_set_r(t, 100); }},
        {kByLoop, died_at(510), kUnlock, 1, [] { return timer_cancel_r(t); }},
        {kByLoop, died_at(510), kUnlock, 1, [] { return timer_cancelx_r(t); }},
        {kByLoop, died_at(555), kUnlock, 1, [] { return timer_delete_r(t); }},
        {kByLoop, died_at(607), kLock, 1, [] { return timer_close_r(); }},
        {kByLoop, died_at(620), kUnlock, 1, [] { return timer_close_r(); }},
        {kByLoop, died_at(632), kLock, 1, [] { return timer_ticking_r(t); }},
        {kByLoop, died_at(637), kUnlock, 1, [] { return timer_ticking_r(t); }},
        {kByLoop, died_at(660), kUnlock, 1, [] { return timer_modhandler_r(t, count); }},
        {kByLoop, "Timer failure: timer_r:409\n", kLock, 1, create},
        {kByLoop, "", kLock, 1, [] { return timer_set_r(t, 100); }},
        {kByLoop, "", kLock, 1, [] { return timer_cancel_r(t); }},
        {kByLoop, "", kLock, 1, [] { return timer_cancelx_r(t); }},
        {kByLoop, "", kLock, 1, [] { return timer_delete_r(t); }},
        {kByLoop, "", kLock, 1, [] { return timer_modhandler_r(t, count); }},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.printed + " by " + c.function);
        if (c.by == kByLoop && !support::is_stand_in("ioss_create"))
            continue;
        support::Ending ending = support::in_child([&] {
            t = c.by == kByLoop && use_loop() == 0 ? createTimerCB(count, 0, 0, 0, 0) : nullptr;
            utils_testing_fail_call(c.function, c.nth, EPERM, 1);
            return c.call() == -1 ? 0 : 1;
        });
        bool dies = c.printed.find("Assert") != c.printed.npos;
        EXPECT_EQ(ending.exited, !dies);
        EXPECT_EQ(ending.status, dies ? SIGABRT : 0);
        EXPECT_EQ(ending.out, c.printed);
    }
    // The queue's own report waits for a reader in vain.
    EXPECT_EQ(support::signal_of([] {
                  int ends[2];
                  if (pipe2(ends, O_NONBLOCK) != 0 || dup2(ends[1], 1) != 1)
                      return 1;
                  while (write(1, "full", 4) > 0) {
                  }
                  fcntl(1, F_SETFL, 0);
                  setvbuf(stdout, nullptr, _IONBF, 0);
                  alarm(100);
                  msgQHandle queue = msgQCreate(0, TIMER_MESSAGE_LENGTH, 0, "full");
                  return timer_set_r(timer_create_r(queue, count, 0, 0), 0) + pause();
              }),
              SIGABRT);
    support::Ending ending =
        support::in_child([] { return timer_ioss_create(nullptr, nullptr, 0) + 12; });
    EXPECT_EQ(ending.status, 0);
    // The reason is the platform's.
    EXPECT_THAT(ending.err, testing::StartsWith("timer_ioss_create: ioss_create failed: "));
}

}  // namespace
