// SPDX-License-Identifier: Apache-2.0
// Every test runs in a child: the service is one per process, and some of its states are for life.
#include "utils/timer_r.h"

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "support/support.h"
#include "utils/lst.h"
#include "utils/platform/posix/loop.h"

namespace {

// Threads of another policy would need rights.
[[maybe_unused]] const int replaced =
    (support::replace_call(
         "pthread_attr_setschedpolicy",
         [](pthread_attr_t *, int policy) { return policy != SCHED_FIFO ? EINVAL : 0; }),
     0);
std::atomic<int> wakes{0};  // of the loop

[[maybe_unused]] int all_wakes() {
    return wakes + utils_testing_count_calls("pthread_cond_signal");
}

std::atomic<int> calls{0};

void count(uintptr_t, uintptr_t) {
    ++calls;
}

TEST(TimerR, PostsExpiryMessagesToTheQueue) {
    EXPECT_TRUE(support::passes_in_child([] {
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
    }));
}

TEST(TimerR, DirectHandlersMayUseTheWholeFamily) {
    static timerHandle self, next;
    EXPECT_TRUE(support::passes_in_child([] {
        self = createTimerCB(
            [](uintptr_t, uintptr_t) {
                if (timer_set_r(next, 50) == 0 && timer_delete_r(self) == 0)
                    ++calls;
            },
            0, 0, 0, 0);
        next = timer_create_r(nullptr, count, 0, 0);
        timer_set_r(self, 50);
        EXPECT_TRUE(support::eventually([] { return calls == 2; }));
        EXPECT_EQ(createTimerCB(nullptr, 0, 0, 0, 0), nullptr);
    }));
}

#define NEEDS_OUR_LOOP()                      \
    if (!support::is_stand_in("ioss_create")) \
    GTEST_SKIP() << "the loop is the platform's own"

int threads() {
    int count = 0;
    for ([[maybe_unused]] auto &task : std::filesystem::directory_iterator("/proc/self/task"))
        ++count;
    return count;
}

TEST(TimerR, CloseDeletesWhatIsArmedAndTheNextCreateStartsAgain) {
    EXPECT_TRUE(support::passes_in_child([] {
        timerHandle idle = timer_create_r(nullptr, count, 0, 0);
        timer_set_r(timer_create_periodic_r(nullptr, count, 0, 0), 1000000);
        int running = threads();
        timer_close_r();
        // The question about the idle timer passes the mutex, as the thread's last words do.
        EXPECT_TRUE(
            support::eventually([&] { return timer_ticking_r(idle) == 0 && threads() < running; }));
        EXPECT_EQ(timer_gethead(), nullptr);
        timerHandle next = timer_create_r(nullptr, count, 0, 0);
        timer_set_r(next, 1000000);
        timer_set_r(idle, 60);  // due first, so the service wakes for it
        EXPECT_TRUE(support::eventually([] { return calls == 1; }));
    }));
}

// What is set after a close lives with the new service, though the old thread, and with it a pass,
// still waits in a handler. That thread then ends, while everything due is left to the new one.
TEST(TimerR, ANewServiceOwesNothingToTheOldThread) {
    static int entered[2], left[2][2];  // pipes
    static pthread_t served;
    EXPECT_TRUE(support::passes_in_child([] {
        EXPECT_EQ(pipe(entered) + pipe(left[0]) + pipe(left[1]), 0);
        timerHandler stay = [](uintptr_t number, uintptr_t) {
            char byte = 0;
            served = pthread_self();
            EXPECT_EQ(write(entered[1], &byte, 1), 1);
            EXPECT_EQ(read(left[number][0], &byte, 1), 1);
        };
        char byte = 0;
        alarm(30);
        timerHandle armed = timer_create_r(nullptr, count, 0, 0);
        timer_set_r(armed, 1000000);
        timer_set_r(createTimerCB(stay, 0, 0, 0, 0), 0);
        EXPECT_EQ(read(entered[0], &byte, 1), 1);
        timer_close_r();
        EXPECT_EQ(timer_set_r(armed, 0), -1) << "it went with the service that was closed";
        timer_set_r(createTimerCB(stay, 0, 1, 0, 0), 0);
        EXPECT_EQ(read(entered[0], &byte, 1), 1);
        pthread_t successor = served;
        timer_set_r(createTimerCB([](uintptr_t, uintptr_t) { served = pthread_self(), ++calls; }, 0,
                                  0, 0, 0),
                    0);
        int both = threads();
        EXPECT_EQ(write(left[0][1], &byte, 1), 1);
        EXPECT_TRUE(support::eventually([&] { return threads() < both; }));
        EXPECT_EQ(calls, 0);
        EXPECT_EQ(write(left[1][1], &byte, 1), 1);
        EXPECT_TRUE(support::eventually([] { return calls == 1; }));
        EXPECT_TRUE(pthread_equal(served, successor));
    }));
}

TEST(TimerR, ThreeHundredRestartsLoseNoTimer) {
    EXPECT_TRUE(support::passes_in_child([] {
        static std::atomic<bool> done{false};
        pthread_t other;
        auto create_and_delete = [](void *) -> void * {
            while (!done)
                EXPECT_EQ(timer_delete_r(timer_create_r(nullptr, count, 0, 0)), 0);
            return nullptr;
        };
        pthread_create(&other, nullptr, create_and_delete, nullptr);
        msgQHandle queue = msgQCreate(1, TIMER_MESSAGE_LENGTH, 0, "events");
        timer_message event;
        for (int round = 0; round < 300; ++round) {
            timerHandle timer = timer_create_r(queue, nullptr, 0, 0);
            timer_set_r(timer, 0);
            ASSERT_EQ(msgQReceive(queue, &event, sizeof event, 10000), 0) << round;
            ASSERT_EQ(timer_delete_r(timer), 0);
            timer_set_r(timer_create_r(queue, nullptr, 0, 0), 1000000);
            timer_close_r();
        }
        done = true;
        pthread_join(other, nullptr);
    }));
}

#ifndef __SANITIZE_THREAD__  // keeps pthread_cond_signal() for itself
// Whom a change of the first due time wakes: the service's own thread, and an I/O loop.
TEST(TimerR, WakesWhenTheFirstDueTimeChanges) {
    static timerHandle a, b;
    static ioss_loop *loop;
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
        {"the end",
         [] { return (loop != nullptr ? timer_ioss_free(loop) : 0) + timer_set_r(a, 100000); }, 0,
         0},
    };
    for (bool by_thread : {true, false}) {
        if (!by_thread)
            NEEDS_OUR_LOOP();
        EXPECT_TRUE(support::passes_in_child([&] {
            loop = by_thread ? nullptr : ioss_loop_create();
            if (loop != nullptr)
                timer_ioss_create(
                    loop, [](uintptr_t) { ++wakes; }, 0);
            a = timer_create_r(nullptr, count, 0, 0);
            b = timer_create_r(nullptr, count, 0, 0);
            for (auto &step : steps) {
                int before = all_wakes();
                EXPECT_EQ(step.call(), 0) << step.what;
                EXPECT_EQ(all_wakes() - before, by_thread ? step.by_thread : step.by_loop)
                    << step.what;
            }
        }));
    }
}
#endif

// Nobody wakes the thread for a first timer that falls due later: its time-out for the one before
// must not fire it early.
TEST(TimerR, AStaleTimeOutWaitsOnForTheNextTimer) {
    EXPECT_TRUE(support::passes_in_child([] {
        static int64_t begin = support::monotonic_ms();
        static std::atomic<int> took{0};
        timerHandle first = timer_create_r(nullptr, count, 0, 0);
        timerHandle next = createTimerCB(
            [](uintptr_t, uintptr_t) { took = static_cast<int>(support::monotonic_ms() - begin); },
            0, 0, 0, 0);
        timer_set_r(first, 100);
        timer_set_r(next, 140);
        // By then the thread waits for the first one.
        EXPECT_TRUE(support::eventually([] { return support::monotonic_ms() - begin >= 10; }));
        timer_cancel_r(first);
        EXPECT_TRUE(support::eventually([] { return took != 0; }));
        EXPECT_GE(took, 139);
        EXPECT_EQ(calls, 0);
    }));
}

TEST(TimerR, AfterAFlushTimersRunDownAndDeliverNothing) {
    NEEDS_OUR_LOOP();
    EXPECT_TRUE(support::passes_in_child([] {
        ioss_loop *loop = ioss_loop_create();
        timer_ioss_create(loop, ioss_wake, reinterpret_cast<uintptr_t>(loop));
        timerHandle often = timer_create_periodic_r(nullptr, count, 0, 0);
        timer_set_r(often, 50);
        uint32_t expiry = often->expiry;
        timer_flush_r();
        EXPECT_EQ(ioss_run(loop, 150), 0);
        EXPECT_EQ(calls, 0);
        EXPECT_EQ(timer_ticking_r(often), 1);
        EXPECT_NE(often->expiry, expiry);
        timer_delete_r(often);
        ioss_loop_destroy(loop);
    }));
}

// A daemon's own loop: a pipe is served and timers fire on the loop's thread, no service thread
// runs.
TEST(TimerR, TheIoLoopDrivesTimersAndDescriptors) {
    NEEDS_OUR_LOOP();
    static ioss_loop *loop;
    static pthread_t here;
    static timerHandle often;
    EXPECT_TRUE(support::passes_in_child([] {
        here = pthread_self();
        loop = ioss_loop_create();
        ASSERT_EQ(timer_ioss_create(loop, ioss_wake, reinterpret_cast<uintptr_t>(loop)), 0);
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(ioss_watch(
                      loop, ends[0],
                      [](void *arg, int fd) {
                          char byte;
                          if (read(fd, &byte, 1) == 1)
                              *static_cast<char *>(arg) = byte;
                          timer_set_r(often, 50);
                      },
                      &ends[1]),
                  0);
        often = createTimerCB(
            [](uintptr_t, uintptr_t) {
                EXPECT_TRUE(pthread_equal(pthread_self(), here));
                if (++calls == 3) {
                    timer_cancel_r(often);
                    ioss_stop(loop);
                }
            },
            0, 0, 0, 1);
        ASSERT_EQ(write(ends[1], "x", 1), 1);
        EXPECT_EQ(ioss_run(loop, 20000), 0);
        EXPECT_EQ(calls, 3);
        EXPECT_EQ(reinterpret_cast<char *>(&ends[1])[0], 'x');
        EXPECT_EQ(timer_ioss_free(loop), 0);
        timer_set_r(often, 50);
        EXPECT_EQ(ioss_run(loop, 80), 0);
        EXPECT_EQ(calls, 3) << "the loop no longer drives timers";
        ioss_loop_destroy(loop);
    }));
}

// Three readable pipes: the first takes the second back, the third ends the round.
TEST(TimerR, TheIoLoopServesWhatIsWatchedUntilItIsTakenBack) {
    static ioss_loop *loop;
    static int ends[3][2];
    static std::string order;
    loop = ioss_loop_create();
    auto first = [](void *name, int) {
        order += static_cast<char *>(name);
        ioss_unwatch(loop, ends[1][0]);
    };
    auto other = [](void *name, int) {
        order += static_cast<char *>(name);
        ioss_stop(loop);
    };
    char names[3][2] = {"a", "b", "c"}, byte;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(pipe(ends[i]), 0);
        ASSERT_EQ(write(ends[i][1], "x", 1), 1);
        EXPECT_EQ(ioss_watch(loop, ends[i][0], i == 0 ? +first : +other, names[i]), 0);
    }
    EXPECT_EQ(ioss_watch(loop, -1, other, names), -1);
    EXPECT_EQ(ioss_watch(loop, 0, nullptr, names), -1);
    EXPECT_EQ(ioss_run(loop, 20000), 0);
    EXPECT_EQ(ioss_run(loop, 0), 0) << "without time nothing is served";
    EXPECT_EQ(order, "ac");
    EXPECT_EQ(read(ends[2][0], &byte, 1), 1);
    for (int i : {0, 2, 2})  // once more than it is watched
        ioss_unwatch(loop, ends[i][0]);
    std::thread stopper([] { ioss_stop(loop); });
    EXPECT_EQ(ioss_run(loop, -1), 0);
    stopper.join();
    utils_testing_fail_call("poll", 1, EINTR, 1);
    EXPECT_EQ(ioss_run(loop, 1), 0);
    utils_testing_fail_call("poll", 1, ENOMEM, 1);
    EXPECT_EQ(ioss_run(loop, 1000), -1);
    int watches = 0;
    for (; watches < 100 && ioss_watch(loop, 0, other, names) == 0;)
        ++watches;
    EXPECT_EQ(watches, 64);
    ioss_loop_destroy(loop);
    utils_testing_reset();
    for (auto &pair : ends)
        EXPECT_EQ(close(pair[0]) + close(pair[1]), 0);
}

TEST(TimerR, WakesABlockedLoopFromAnotherThread) {
    NEEDS_OUR_LOOP();
    static ioss_loop *loop;
    EXPECT_TRUE(support::passes_in_child([] {
        loop = ioss_loop_create();
        timer_ioss_create(loop, ioss_wake, reinterpret_cast<uintptr_t>(loop));
        pthread_t setter;
        pthread_create(
            &setter, nullptr,
            [](void *) -> void * {
                timer_set_r(
                    createTimerCB([](uintptr_t, uintptr_t) { ioss_stop(loop); }, 0, 0, 0, 0), 100);
                return nullptr;
            },
            nullptr);
        int64_t begin = support::monotonic_ms();
        EXPECT_EQ(ioss_run(loop, 60000), 0);
        EXPECT_LT(support::monotonic_ms() - begin, 30000);
        pthread_join(setter, nullptr);
    }));
}

struct Failure {
    const char *printed;
    std::function<int()> body;
};

void expect_fatal(const Failure &failure) {
    support::Ending ending = support::in_child(failure.body);
    EXPECT_FALSE(ending.exited) << failure.printed;
    EXPECT_EQ(ending.status, SIGABRT) << failure.printed;
    EXPECT_EQ(ending.out, failure.printed);
}

TEST(TimerR, MisuseIsFatalWithItsOwnNumber) {
    static uintptr_t zero = 0;
    for (const Failure &failure : std::initializer_list<Failure>{
             {"Assert failure: timer_r:115\n",
              [] { return timer_init_r() + timer_ioss_create(nullptr, nullptr, 0); }},
             {"Assert failure: timer_r:141\n", [] { return timer_ioss_free(nullptr); }},
             {"Assert failure: timer_r:141\n", [] { return timer_ioss_free(&zero); }},
             {"queue full: queue full (miss=1)\nAssert failure: timer_r:275\n", [] {
                  msgQHandle queue = msgQCreate(1, TIMER_MESSAGE_LENGTH, 0, "full");
                  timer_set_r(timer_create_periodic_r(queue, count, 0, 0), 50);
                  return support::eventually([] { return false; }) ? 1 : 0;
              }}})
        expect_fatal(failure);
}

TEST(TimerR, AServiceThatCannotStartIsReported) {
    support::Ending ending = support::in_child([] {
        utils_testing_fail_call("pthread_attr_setschedpolicy", 1, EINVAL, 2);
        bool failed = timer_init_r() == -1 && timer_create_r(nullptr, count, 0, 0) == nullptr;
        return failed && timer_create_r(nullptr, count, 0, 0) != nullptr ? 0 : 1;
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.out, "Timer failure: timer_r:404\n");
    ending =
        support::in_child([] { return timer_ioss_create(nullptr, nullptr, 0) == -12 ? 0 : 1; });
    EXPECT_EQ(ending.status, 0);
    // The reason is the platform's.
    EXPECT_THAT(ending.err, testing::StartsWith("timer_ioss_create: ioss_create failed: "));
}

// The loop's thread is the only one, so the next lock or unlock is the one under test.
TEST(TimerR, BrokenLockingIsFatalOrRefused) {
    NEEDS_OUR_LOOP();
    static timerHandle t;
    struct Case {
        int line;  // 0: the call gives -1 instead
        bool lock;
        std::function<int()> call;
    };
    const Case cases[] = {
        {476, false, [] { return timer_set_r(t, 100); }},
        {510, false, [] { return timer_cancel_r(t); }},
        {510, false, [] { return timer_cancelx_r(t); }},
        {555, false, [] { return timer_delete_r(t); }},
        {660, false, [] { return timer_modhandler_r(t, count); }},
        {632, true, [] { return timer_ticking_r(t); }},
        {637, false, [] { return timer_ticking_r(t); }},
        {607, true, [] { return timer_close_r(); }},
        {620, false, [] { return timer_close_r(); }},
        {424, false, [] { return timer_create_r(nullptr, count, 0, 0) != nullptr ? 1 : 0; }},
        {0, true, [] { return timer_set_r(t, 100); }},
        {0, true, [] { return timer_cancel_r(t); }},
        {0, true, [] { return timer_cancelx_r(t); }},
        {0, true, [] { return timer_delete_r(t); }},
        {0, true, [] { return timer_modhandler_r(t, count); }},
    };
    for (const Case &c : cases) {
        support::Ending ending = support::in_child([&] {
            ioss_loop *loop = ioss_loop_create();
            timer_ioss_create(loop, ioss_wake, reinterpret_cast<uintptr_t>(loop));
            t = timer_create_r(nullptr, count, 0, 0);
            auto *broken = c.lock ? "pthread_mutex_lock" : "pthread_mutex_unlock";
            utils_testing_fail_call(broken, 1, EPERM, 1);
            return c.call() == -1 ? 0 : 1;
        });
        EXPECT_EQ(ending.exited, c.line == 0) << c.line;
        EXPECT_EQ(ending.status, c.line == 0 ? 0 : SIGABRT) << c.line;
        EXPECT_EQ(ending.out,
                  c.line == 0 ? "" : "Assert failure: timer_r:" + std::to_string(c.line) + "\n");
    }
    support::Ending ending = support::in_child([] {
        ioss_loop *loop = ioss_loop_create();
        timer_ioss_create(loop, ioss_wake, reinterpret_cast<uintptr_t>(loop));
        utils_testing_fail_call("pthread_mutex_lock", 1, EPERM, 1);
        return timer_create_r(nullptr, count, 0, 0) == nullptr ? 0 : 1;
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.out, "Timer failure: timer_r:409\n");
}

}  // namespace
