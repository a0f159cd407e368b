#include "utils/iot.h"

#include <unistd.h>

#include <cstdarg>
#include <mutex>
#include <thread>
#include <vector>

#include "support/support.h"

namespace {

std::mutex mutex;
std::vector<int> served;
std::vector<uintptr_t> forwarded;

// Takes one byte and notes the descriptor: a descriptor stays readable while it holds more.
int serve(int descriptor) {
    char byte;
    EXPECT_EQ(read(descriptor, &byte, 1), 1);
    std::lock_guard guard(mutex);
    served.push_back(descriptor);
    return 1;
}

std::vector<int> served_now() {
    std::lock_guard guard(mutex);
    return served;
}

struct Pipe {
    int in, out;
    Pipe() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        in = ends[0];
        out = ends[1];
    }
    void feed() const { EXPECT_EQ(write(out, "x", 1), 1); }
};

void notification(int kind, ...) {
    va_list words;
    va_start(words, kind);
    forwarded = {static_cast<uintptr_t>(kind)};
    for (int i = 0; i < 7; ++i)
        forwarded.push_back(va_arg(words, uintptr_t));
    va_end(words);
}

// Feeds the pipes while the watch thread is held in the handler of `hurry`, so that its next round
// sees all of them, and the changes made meanwhile.
struct {
    Pipe begun, go;
} gate;

int held(int descriptor) {
    char byte;
    EXPECT_EQ(read(descriptor, &byte, 1), 1);
    EXPECT_EQ(write(gate.begun.out, "b", 1), 1);
    EXPECT_EQ(read(gate.go.in, &byte, 1), 1);
    return 0;
}

template <typename Body>
void while_held(const Pipe &hurry, Body body) {
    char byte;
    hurry.feed();
    EXPECT_EQ(read(gate.begun.in, &byte, 1), 1);
    body();
    gate.go.feed();
}

TEST(Iot, ForwardsOnlyItsOwnKindAndOnlyToSomebody) {
    iot_init(nullptr);
    iot_notify(IOT_NOTIFY_FORWARD, 1);
    iot_init(notification);
    iot_notify(3, 1);
    EXPECT_TRUE(forwarded.empty());
    char text;
    iot_notify(IOT_NOTIFY_FORWARD, &text, uintptr_t{17});
    EXPECT_EQ(forwarded,
              (std::vector<uintptr_t>{2, reinterpret_cast<uintptr_t>(&text), 17, 0, 0, 0, 0, 0}));
}

TEST(Iot, TakesEightDescriptorsWithinBounds) {
    iot_init(nullptr);
    for (int descriptor : {-1, 1024, 5000})
        EXPECT_EQ(iot_add(descriptor, serve, 1), -1);
    for (int i = 0; i < IOT_ENTRIES_MAX; ++i)
        EXPECT_EQ(iot_add(1016 + i, serve, 1), 0);
    EXPECT_EQ(iot_add(3, serve, 0), -1);
    iot_del(1024);
    iot_del(-1);
    iot_del(55);
    EXPECT_EQ(iot_add(3, serve, 0), -1);
    iot_del(1020);
    iot_notify(IOT_NOTIFY_REBUILD);  // passes over the freed entry, which keeps its flag
    EXPECT_EQ(iot_add(3, serve, 0), 0);
    iot_exit();
    EXPECT_EQ(iot_add(4, serve, 0), 0);
}

TEST(Iot, WatchesWhatItIsToldToInTableOrder) {
    Pipe hurry, first, second, quiet;
    ASSERT_EQ(iot_init(nullptr), 0);
    ASSERT_EQ(iot_add(hurry.in, held, 1), 0);
    ASSERT_EQ(iot_add(second.in, serve, 1), 0);
    ASSERT_EQ(iot_add(first.in, serve, 1), 0);
    ASSERT_EQ(iot_add(quiet.in, serve, 0), 0);
    ASSERT_EQ(iot_start(), 0);
    auto feed_all = [&] {
        for (const Pipe *pipe : {&first, &second, &quiet})
            pipe->feed();
    };
    auto expect_served = [&](std::vector<int> expected) {
        EXPECT_TRUE(support::eventually([&] { return served_now().size() >= expected.size(); }));
        while_held(hurry, [&] { EXPECT_EQ(served_now(), expected); });
        std::lock_guard guard(mutex);
        served.clear();
    };
    while_held(hurry, feed_all);
    expect_served({second.in, first.in});  // quiet is not watched
    while_held(hurry, [&] { iot_notify(IOT_NOTIFY_WATCH_ALL); });
    expect_served({quiet.in});
    while_held(hurry, [&] {
        iot_notify(IOT_NOTIFY_REBUILD);
        iot_del(second.in);
        feed_all();
    });
    expect_served({first.in});
    while_held(hurry, [&] { iot_exit(); });
}

TEST(Iot, StateMayChangeFromSeveralThreads) {
    Pipe ticking;
    iot_init(nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                EXPECT_EQ(iot_add(500 + t, serve, 0), 0);
                iot_notify(i % 2 != 0 ? IOT_NOTIFY_REBUILD : 9);
                iot_del(500 + t);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    for (int i = 0; i < IOT_ENTRIES_MAX; ++i)
        EXPECT_EQ(iot_add(i, serve, 0), 0);
    iot_exit();
}

}  // namespace
