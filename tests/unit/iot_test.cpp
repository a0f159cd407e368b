// SPDX-License-Identifier: Apache-2.0
// The watch thread: its table, its bounds, what it waits for and what ends it.
#include "utils/iot.h"

#include "support/support.h"

namespace {

enum { kFirst, kSecond, kQuiet, kHurry, kBegun, kGo, kFar };
int pipes[7][2];
std::vector<int> served;  // the watch thread's, but while it is held
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
    for (int pipe : {kFirst, kSecond, kQuiet}) {
        if (pipes[pipe][0] == descriptor) {
            take(pipe);
            served.push_back(pipe);
        }
    }
    return 1;
}

int note(int descriptor) {
    served.push_back(descriptor);
    return 0;
}

// The last of the table: the watch thread has served the others when it is held here, and sees in
// its next round all that happens meanwhile.
int held(int) {
    take(kHurry);
    feed(kBegun);
    take(kGo);
    return 0;
}

template <typename Body>
void while_held(Body body) {
    feed(kHurry);
    take(kBegun);
    body();
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
    for (int i = 0; i < IOT_ENTRIES_MAX; ++i)
        EXPECT_EQ(iot_add(1016 + i, serve, 1), 0);
    for (int descriptor : {1024, -1, 55}) {
        iot_del(descriptor);
        EXPECT_EQ(iot_add(3, serve, 0), -1);
    }
    iot_del(1020);
    iot_notify(IOT_NOTIFY_REBUILD);  // passes over the freed entry, which keeps its flag
    EXPECT_EQ(iot_add(3, serve, 0), 0);
    iot_exit();
    EXPECT_EQ(iot_add(4, serve, 0), 0);
}

TEST(Iot, WatchesWhatItIsToldToInTableOrderWhileOtherThreadsChangeTheState) {
    using Pipes = std::vector<int>;
    support::leaves({.descriptors = 15, .threads = 1});  // the service thread, and what it watches
    ASSERT_EQ(iot_init(nullptr), 0);
    for (auto &ends : pipes)
        ASSERT_EQ(pipe(ends), 0);
    for (int pipe : {kSecond, kFirst, kQuiet})
        ASSERT_EQ(iot_add(pipes[pipe][0], serve, pipe != kQuiet), 0);
    // In a word of its own, beyond those of the others.
    ASSERT_EQ(iot_add(dup2(pipes[kFar][0], 200), note, 0), 0);
    ASSERT_EQ(iot_add(pipes[kHurry][0], held, 1), 0);
    ASSERT_EQ(iot_start(), 0);
    auto feed_all = [] {
        for (int pipe : {kFirst, kSecond, kQuiet})
            feed(pipe);
    };
    while_held(feed_all);
    while_held([] {
        EXPECT_EQ(served, (Pipes{kSecond, kFirst}));  // one is not watched
        iot_notify(IOT_NOTIFY_WATCH_ALL);
    });
    while_held([&] {
        EXPECT_EQ(served, (Pipes{kSecond, kFirst, kQuiet}));
        iot_notify(IOT_NOTIFY_REBUILD);
        iot_del(pipes[kSecond][0]);
        feed_all();
    });
    while_held([] {
        EXPECT_EQ(served, (Pipes{kSecond, kFirst, kQuiet, kFirst}));
        iot_notify(IOT_NOTIFY_WATCH_ALL);
    });
    while_held([] { EXPECT_EQ(served, (Pipes{kSecond, kFirst, kQuiet, kFirst, kQuiet})); });
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 2000; ++i) {
                EXPECT_EQ(iot_add(500 + t, serve, 0), 0);
                iot_notify(i % 2 != 0 ? IOT_NOTIFY_REBUILD : 9);
                iot_del(500 + t);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    while_held([] { iot_exit(); });
}

}  // namespace
