// SPDX-License-Identifier: Apache-2.0
// The one task that a process is: its identity, its priority and its delays.
#include "utils/task.h"

#include "support/support.h"

namespace {

// One process is one task, so the order matters: before taskInit, after it, and after a second one.
TEST(Task, IdentityLivesFromInitToInit) {
    EXPECT_EQ(taskIdSelf(), -1);
    EXPECT_STREQ(taskName(-1), "");
    EXPECT_EQ(taskNameToId(""), -1);
    EXPECT_EQ(taskNameToId("portd"), -1);

    EXPECT_EQ(taskInit("portd"), getpid());
    EXPECT_EQ(taskIdSelf(), getpid());
    EXPECT_EQ(taskName(getpid()), task_name);
    EXPECT_EQ(taskName(getpid() + 1), nullptr);
    EXPECT_EQ(taskNameToId("portd"), getpid());
    EXPECT_EQ(taskNameToId("Portd"), -1);
    EXPECT_EQ(taskNameToId(nullptr), -1);

    taskInit("a-name-of-more-than-eleven");
    EXPECT_STREQ(task_name, "a-name-of-m");
    taskInit(task_name + 2);
    EXPECT_STREQ(task_name, "name-of-m");
    taskInit(nullptr);
    EXPECT_STREQ(task_name, "");
}

TEST(Task, PriorityIsTheNiceValueAndIgnoresRefusal) {
    static int nice_asked = -1;
    support::replace_call("setpriority", [](int which, id_t who, int value) {
        nice_asked = which == PRIO_PROCESS && who == 0 ? value : -1000;
        return -1;
    });
    EXPECT_EQ(taskPriority(7), 0);
    EXPECT_EQ(nice_asked, 7);
}

// Nobody sleeps: what is asked for is a point of time, which a signal does not move.
TEST(Task, DelaysWholeMillisecondsOfTicksWhateverInterruptsThem) {
    static std::vector<int64_t> ends;
    support::replace_call("clock_nanosleep",
                          [](clockid_t clock, int flags, const timespec *until, timespec *) {
                              EXPECT_EQ(clock, CLOCK_MONOTONIC);
                              EXPECT_EQ(flags, TIMER_ABSTIME);
                              ends.push_back(until->tv_sec * 1000ll + until->tv_nsec / 1000000);
                              return ends.size() < 3 ? EINTR : 0;
                          });
    for (auto [ticks, ms] :
         {std::pair(0, 0), {-60, 0}, {INT32_MIN, 0}, {1, 16}, {5, 83}, {600, 10000}}) {
        ends.clear();
        int64_t begin = support::monotonic_ms();
        EXPECT_EQ(taskDelay(ticks), 0);
        ASSERT_EQ(ends.size(), ms == 0 ? 0u : 3u) << ticks;
        for (int64_t end : ends) {
            EXPECT_GE(end, begin + ms) << ticks;
            EXPECT_LE(end, support::monotonic_ms() + ms + 1) << ticks;
        }
    }
}

}  // namespace
