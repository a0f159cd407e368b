// SPDX-License-Identifier: Apache-2.0
// The watch thread: its table, its bounds, what it waits for and what ends it.
#include "utils/iot.h"

#include "support/support.h"

namespace {

enum { kFirst, kSecond, kQuiet, kFar, kNobody, kHurry, kBegun, kGo, kPipes };
int pipes[kPipes][2];
std::string served;  // the watch thread's, but while it is held
std::vector<uintptr_t> forwarded;

void feed(int pipe) {
    EXPECT_EQ(write(pipes[pipe][1], "x", 1), 1);
}

void take(int pipe) {
    char byte;
    EXPECT_EQ(read(pipes[pipe][0], &byte, 1), 1);
}

// Takes one byte and notes the pipe, which stays readable while it holds more.
int serve(int descriptor) {
    constexpr const char *kNames[] = {"first ", "second ", "quiet ", "far "};
    for (int pipe : {kFirst, kSecond, kQuiet, kFar}) {
        if (pipes[pipe][0] == descriptor) {
            take(pipe);
            served += kNames[pipe];
        }
    }
    return 1;
}

// The last of the table: the watch thread has served the others when it is held here, and sees in
// its next round all that happens meanwhile.
int held(int) {
    take(kHurry);
    feed(kBegun);
    take(kGo);
    return 0;
}

// In the next round everything that `body` makes readable is so together with what holds the thread.
template <typename Body>
void while_held(Body body) {
    take(kBegun);
    body();
    feed(kHurry);
    feed(kGo);
}

void notification(int kind, ...) {
    va_list words;
    va_start(words, kind);
    forwarded = {static_cast<uintptr_t>(kind)};
    for (int i = 0; i < 7; ++i)
        forwarded.push_back(va_arg(words, uintptr_t));
    va_end(words);
}

TEST(Iot, ForwardsOnlyItsOwnKindAndOnlyToSomebody) {
    iot_init(nullptr);
    iot_notify(IOT_NOTIFY_FORWARD, 1);
    iot_init(notification);
    iot_notify(3, 1);
    EXPECT_TRUE(forwarded.empty());
    auto address = reinterpret_cast<uintptr_t>(&forwarded);
    iot_notify(IOT_NOTIFY_FORWARD, &forwarded, uintptr_t{17});
    EXPECT_EQ(forwarded, (std::vector<uintptr_t>{2, address, 17, 0, 0, 0, 0, 0}));
}

TEST(Iot, TakesEightDescriptorsWithinBounds) {
    iot_init(nullptr);
    for (int descriptor : {-1, 1024, 5000})
        EXPECT_EQ(iot_add(descriptor, serve, 1), -1);
    for (int descriptor : {0, 1, 1018, 1019, 1020, 1021, 1022, 1023})
        EXPECT_EQ(iot_add(descriptor, serve, 1), 0);
    for (int descriptor : {1024, -1, 55}) {
        iot_del(descriptor);
        EXPECT_EQ(iot_add(3, serve, 0), -1);
    }
    iot_del(0);
    EXPECT_EQ(iot_add(0, serve, 1), 0);
    iot_del(1020);
    iot_notify(IOT_NOTIFY_REBUILD);  // passes over the freed entry, which keeps its flag
    EXPECT_EQ(iot_add(3, serve, 0), 0);
    iot_exit();
    EXPECT_EQ(iot_add(4, serve, 0), 0);
}

TEST(Iot, WatchesWhatItIsToldToInTableOrderWhileOtherThreadsChangeTheState) {
    support::leaves({.descriptors = 15});  // what was watched
    ASSERT_EQ(iot_init(nullptr), 0);
    for (auto &ends : pipes)
        ASSERT_EQ(pipe(ends), 0);
    close(std::exchange(pipes[kFirst][0], dup2(pipes[kFirst][0], 0)));
    for (int pipe : {kSecond, kFirst, kQuiet})
        ASSERT_EQ(iot_add(pipes[pipe][0], serve, pipe != kQuiet), 0);
    // In a word of its own, beyond those of the others; and one without a handler.
    close(std::exchange(pipes[kFar][0], dup2(pipes[kFar][0], 200)));
    ASSERT_EQ(iot_add(200, serve, 0), 0);
    ASSERT_EQ(iot_add(pipes[kNobody][0], nullptr, 0), 0);
    ASSERT_EQ(iot_add(pipes[kHurry][0], held, 1), 0);
    const int threads_before = support::threads();
#ifndef UTILS_TESTING_SANITIZED  // starts threads past everybody
    utils_testing_fail_call("pthread_create", 1, EAGAIN, 1);
    EXPECT_EQ(iot_start(), -1);
#endif
    feed(kHurry);
    ASSERT_EQ(iot_start(), 0);
    auto feed_all = [] {
        for (int pipe : {kFirst, kSecond, kQuiet})
            feed(pipe);
    };
    while_held(feed_all);
    while_held([] {
        EXPECT_EQ(served, "second first ");  // one is not watched
        iot_notify(IOT_NOTIFY_WATCH_ALL);
        feed(kNobody);
        utils_testing_fail_call("select", 1, EINTR, 2);
    });
    while_held([&] {
        EXPECT_EQ(utils_testing_failures(), 2);
        EXPECT_EQ(served, "second first quiet ");
        take(kNobody);
        iot_notify(IOT_NOTIFY_REBUILD);
        iot_del(pipes[kSecond][0]);
        close(std::exchange(pipes[kSecond][0], -1));  // to wait for it would be the thread's end
        feed(kFirst);
        feed(kQuiet);
        utils_testing_fail_call("select", 1, EAGAIN, 1);
    });
    while_held([] {
        EXPECT_EQ(served, "second first quiet first ");
        iot_notify(IOT_NOTIFY_WATCH_ALL);
    });
    while_held([] { EXPECT_EQ(served, "second first quiet first quiet "); });
    support::in_threads(3, [](int t) {
        for (int i = 0; i < 2000; ++i) {
            EXPECT_EQ(iot_add(500 + t, serve, 0), 0);
            iot_notify(i % 2 != 0 ? IOT_NOTIFY_REBUILD : 9);
            iot_del(500 + t);
        }
    });
    while_held([] {
        iot_exit();
        utils_testing_fail_call("select", 1, EBADF, UTILS_TESTING_FROM_THEN_ON);
    });
    EXPECT_TRUE(support::eventually([=] { return support::threads() == threads_before; }));
    utils_testing_reset();
}

}  // namespace
