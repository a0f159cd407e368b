// SPDX-License-Identifier: Apache-2.0
#include "utils/task.h"

#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

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

TEST(Task, DelaysWholeMillisecondsOfTicks) {
    struct {
        int ticks, ms;
    } cases[] = {{0, 0}, {-1, 0}, {-60, 0}, {1, 16}, {5, 83}, {INT32_MIN, 0}};
    for (auto &c : cases) {
        int64_t begin = support::monotonic_ms();
        EXPECT_EQ(taskDelay(c.ticks), 0);
        int64_t slept = support::monotonic_ms() - begin;
        EXPECT_GE(slept, c.ms == 0 ? 0 : c.ms - 1) << c.ticks;
        EXPECT_LT(slept, c.ms + 2000) << c.ticks;
    }
}

TEST(Task, SignalsDoNotShortenADelay) {
    support::let_interrupt(SIGALRM);
    itimerval soon{{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    int64_t begin = support::monotonic_ms();
    taskDelay(6);
    EXPECT_GE(support::monotonic_ms() - begin, 99);
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
}

}  // namespace
