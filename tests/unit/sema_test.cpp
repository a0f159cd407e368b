// SPDX-License-Identifier: Apache-2.0
// Semaphores: kinds and counts, takes by time-out, waiters, and deletion beside a giver.
#include "utils/sema.h"

#include "support/support.h"
#include "utils/platform/semaphore.h"

namespace {

using support::captured;
using support::monotonic_ms;

struct Sema : testing::Test {
    semaHandle sem = nullptr;
    void make(int initial) { ASSERT_NE(sem = semaCreate(initial), nullptr); }
    void TearDown() override { EXPECT_EQ(semaDelete(sem), sem != nullptr ? 0 : -1); }
    void expect_shown(const std::string &rest) const {
        char id[40];
        snprintf(id, sizeof id, "Semaphore Id 0x%lx  ", reinterpret_cast<unsigned long>(sem));
        EXPECT_EQ(captured(1, [&] { semaShow(sem); }), id + rest);
    }
};

TEST_F(Sema, CreationSetsKindAndValue) {
    const struct {
        int initial, kind, value;
        const char *shown;
    } cases[] = {{0, SEMA_KIND_BINARY, 0, "BINARY    count: 0\n"},
                 {1, SEMA_KIND_BINARY, 1, "BINARY    count: 1\n"},
                 {-1, SEMA_KIND_COUNTING, 0, "COUNTING  count: 0\n"},
                 {5, SEMA_KIND_COUNTING, 5, "COUNTING  count: 5\n"},
                 {-3, SEMA_KIND_COUNTING, -3, "COUNTING  count: -3\n"},
                 {2, SEMA_KIND_COUNTING, 2, "COUNTING  count: 2\n"}};
    for (auto &c : cases) {
        make(c.initial);
        EXPECT_EQ(sem->user, c.kind) << c.initial;
        EXPECT_EQ(semaCount(sem), c.value) << c.initial;
        expect_shown(c.shown);
        EXPECT_EQ(semaDelete(sem), 0);
    }
    make(1);
    sem->user = 7;
    expect_shown("UNKNOWN\n");
    semaSetCount(sem, 9);
    EXPECT_EQ(semaCount(sem), 1) << "a record of unknown kind keeps its value";
}

TEST_F(Sema, NullsAndUnsupportedCallsAreHarmless) {
    EXPECT_EQ(captured(1, [] { EXPECT_EQ(semaReset(nullptr), 0); }), "semaReset - NOT SUPPORTED\n");
    EXPECT_EQ(captured(1, [] { EXPECT_EQ(semaOwner(nullptr), -1); }),
              "semaOwner - NOT SUPPORTED\n");
    EXPECT_EQ(captured(1, [] { semaShow(nullptr); }), "");
    semaSetCount(nullptr, 1);
    EXPECT_EQ(semaCount(nullptr), 0);
    EXPECT_EQ(semaGive(nullptr), -1);
    EXPECT_EQ(semaFlush(nullptr), 0);
    for (int timeout : {UTILS_WAIT_FOREVER, UTILS_NO_WAIT, 10})
        EXPECT_EQ(semaTake(nullptr, timeout), -1);
}

TEST_F(Sema, TakesByTimeout) {
    make(SEMA_EMPTY);
    EXPECT_EQ(semaTake(sem, UTILS_NO_WAIT), -1);
    for (int timeout : {60, -5}) {
        int64_t begin = monotonic_ms();
        EXPECT_NE(semaTake(sem, timeout), 0);
        EXPECT_GE(monotonic_ms() - begin, timeout - 1);
    }
    EXPECT_EQ(semaGive(sem), 0);
    EXPECT_EQ(semaGive(sem), 0);
    EXPECT_EQ(semaCount(sem), 2) << "a binary semaphore is not capped";
    for (int timeout : {1000, UTILS_NO_WAIT})
        EXPECT_EQ(semaTake(sem, timeout), 0);
    semaSetCount(sem, -4);
    EXPECT_EQ(semaCount(sem), 0);
    semaSetCount(sem, 3);
    EXPECT_EQ(semaTake(sem, UTILS_WAIT_FOREVER), 0);
    EXPECT_EQ(semaCount(sem), 2);
    for (int i = 0; i < 20; ++i) {
        semaSetCount(sem, 0);
        std::thread waiter([&] { EXPECT_EQ(semaTake(sem, UTILS_WAIT_FOREVER), 0); });
        usleep(500);  // it waits, but for chance
        semaSetCount(sem, 1);
        waiter.join();
    }
}

TEST_F(Sema, FlushReleasesEveryWaiterAndLeavesItAvailable) {
    make(SEMA_EMPTY);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            EXPECT_EQ(semaTake(sem, UTILS_WAIT_FOREVER), 0);
            ++released;
        });
    }
    do
        EXPECT_EQ(semaFlush(sem), 0);
    while (released < 3);
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(semaFlush(sem), 0);
    EXPECT_EQ(semaCount(sem), 1);
}

TEST_F(Sema, WhoTakesWaitsAndMayDeleteItWhileItsGiverStillSignals) {
    for (int i = 0; i < (support::emulated() ? 50 : 1000); ++i) {
        semaHandle brief = semaCreate(SEMA_EMPTY);
        std::thread giver([brief] { semaGive(brief); });
        EXPECT_EQ(semaTake(brief, i % 2 == 0 ? UTILS_WAIT_FOREVER : 10000), 0);
        EXPECT_EQ(semaCount(brief), 0);
        EXPECT_EQ(semaDelete(brief), 0);
        giver.join();
    }
}

TEST_F(Sema, DeletionIsPatientWithGiversButNotInAChild) {
    if (!support::is_stand_in("semaphore_destroy"))
        GTEST_SKIP() << "the record is the platform's own";
    make(SEMA_EMPTY);
    sem->wakeups.signalling = 1;  // a giver that never finishes
    auto naps = [this] {
        int before = utils_testing_count_calls("nanosleep");
        semaDelete(std::exchange(sem, nullptr));
        return utils_testing_count_calls("nanosleep") - before;
    };
    EXPECT_EQ(support::in_child(naps).status, 0);
    EXPECT_EQ(naps(), 100);
}

TEST_F(Sema, CountsExactlyUnderContention) {
    make(SEMA_COUNTING_EMPTY);
    constexpr int kThreads = 4, kEach = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i)
                semaGive(sem);
        });
        threads.emplace_back([&] {
            for (int i = 0; i < kEach - 1; ++i)
                ASSERT_EQ(semaTake(sem, i % 2 == 0 ? UTILS_WAIT_FOREVER : 10000), 0);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(semaCount(sem), kThreads);
}

}  // namespace
