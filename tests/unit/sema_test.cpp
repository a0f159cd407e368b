// SPDX-License-Identifier: Apache-2.0
#include "utils/sema.h"

#include <atomic>
#include <thread>
#include <vector>

#include "support/support.h"
#include "utils/platform/semaphore.h"

namespace {

std::string address_of(const void *record) {
    char text[40];
    snprintf(text, sizeof text, "0x%lx",
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(record)));
    return text;
}

TEST(Sema, CreationSetsKindAndValue) {
    struct {
        int initial, kind, value;
        const char *shown;
    } cases[] = {{0, SEMA_KIND_BINARY, 0, "BINARY    count: 0\n"},
                 {1, SEMA_KIND_BINARY, 1, "BINARY    count: 1\n"},
                 {-1, SEMA_KIND_COUNTING, 0, "COUNTING  count: 0\n"},
                 {5, SEMA_KIND_COUNTING, 5, "COUNTING  count: 5\n"},
                 {-3, SEMA_KIND_COUNTING, -3, "COUNTING  count: -3\n"},
                 {2, SEMA_KIND_COUNTING, 2, "COUNTING  count: 2\n"}};
    for (auto &c : cases) {
        semaHandle sem = semaCreate(c.initial);
        ASSERT_NE(sem, nullptr);
        EXPECT_EQ(sem->user, c.kind) << c.initial;
        EXPECT_EQ(semaCount(sem), c.value) << c.initial;
        EXPECT_EQ(support::captured(1, [&] { semaShow(sem); }),
                  "Semaphore Id " + address_of(sem) + "  " + c.shown);
        EXPECT_EQ(semaDelete(sem), 0);
    }
}

TEST(Sema, ShowsUnknownKindsAndUnsupportedCalls) {
    semaHandle sem = semaCreate(1);
    sem->user = 7;
    EXPECT_EQ(support::captured(1, [&] { semaShow(sem); }),
              "Semaphore Id " + address_of(sem) + "  UNKNOWN\n");
    semaSetCount(sem, 9);
    EXPECT_EQ(semaCount(sem), 1) << "a record of unknown kind keeps its value";
    EXPECT_EQ(support::captured(1, [&] { EXPECT_EQ(semaReset(sem), 0); }),
              "semaReset - NOT SUPPORTED\n");
    EXPECT_EQ(support::captured(1, [&] { EXPECT_EQ(semaOwner(sem), -1); }),
              "semaOwner - NOT SUPPORTED\n");
    EXPECT_EQ(support::captured(1, [] { semaShow(nullptr); }), "");
    semaDelete(sem);
}

TEST(Sema, TakesByTimeout) {
    semaHandle sem = semaCreate(SEMA_EMPTY);
    EXPECT_EQ(semaTake(sem, UTILS_NO_WAIT), -1);
    int64_t begin = support::monotonic_ms();
    EXPECT_NE(semaTake(sem, 60), 0);
    EXPECT_GE(support::monotonic_ms() - begin, 59);
    EXPECT_EQ(semaGive(sem), 0);
    EXPECT_EQ(semaGive(sem), 0);
    EXPECT_EQ(semaCount(sem), 2) << "a binary semaphore is not capped";
    EXPECT_EQ(semaTake(sem, UTILS_NO_WAIT), 0);
    EXPECT_EQ(semaTake(sem, 1000), 0);
    semaSetCount(sem, -4);
    EXPECT_EQ(semaCount(sem), 0);
    semaSetCount(sem, 3);
    EXPECT_EQ(semaTake(sem, UTILS_WAIT_FOREVER), 0);
    EXPECT_EQ(semaCount(sem), 2);
    semaDelete(sem);
}

TEST(Sema, FlushReleasesEveryWaiterAndLeavesItAvailable) {
    semaHandle sem = semaCreate(SEMA_EMPTY);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            if (semaTake(sem, UTILS_WAIT_FOREVER) == 0)
                ++released;
        });
    }
    EXPECT_EQ(semaFlush(sem), 0);
    while (released < 3)
        semaFlush(sem);
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(semaFlush(sem), 0);
    EXPECT_EQ(semaCount(sem), 1);
    semaDelete(sem);
}

TEST(Sema, WhoTakesMayDeleteItWhileItsGiverStillSignals) {
    for (int i = 0; i < (support::emulated() ? 50 : 1000); ++i) {
        semaHandle sem = semaCreate(SEMA_EMPTY);
        std::thread giver([sem] { semaGive(sem); });
        EXPECT_EQ(semaTake(sem, i % 2 == 0 ? UTILS_WAIT_FOREVER : 10000), 0);
        EXPECT_EQ(semaDelete(sem), 0);
        giver.join();
    }
}

TEST(Sema, DeletionIsPatientWithGiversButNotInAChild) {
    if (!support::is_stand_in("semaphore_destroy"))
        GTEST_SKIP() << "the record is the platform's own";
    semaHandle sem = semaCreate(SEMA_EMPTY);
    sem->wakeups.signalling = 1;  // a giver that never finishes
    auto deletion_takes = [sem] {
        int64_t begin = support::monotonic_ms();
        semaDelete(sem);
        return static_cast<int>(support::monotonic_ms() - begin);
    };
    EXPECT_LT(support::in_child(deletion_takes).status, 50);
    int took = deletion_takes();
    EXPECT_GE(took, 99);
    EXPECT_LT(took, 5000);
}

TEST(Sema, CountsExactlyUnderContention) {
    semaHandle sem = semaCreate(SEMA_COUNTING_EMPTY);
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
    semaDelete(sem);
}

}  // namespace
