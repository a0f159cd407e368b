// SPDX-License-Identifier: Apache-2.0
// The stand-in's I/O loop: descriptors, polls with their time-outs, wakes, stops and failing calls.
#include <poll.h>

#include "support/support.h"
#include "utils/platform/posix/loop.h"

namespace {

using support::eventually;
using support::kSecond;
using support::replace_call;

TEST(Loop, ServesWhatIsWatchedAndEndsWhenItIsAsked) {
    static std::string called;
    static std::atomic<int> polls{0}, endless{0}, wanted{1};
    alarm(60);  // who waits for good is ended
    ioss_loop *loop = ioss_loop_create();
    int first[2], second[2];
    ASSERT_EQ(pipe2(first, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(second, O_CLOEXEC), 0);
    auto note = [](void *, int) { called += 'a'; };
    auto take_back = [](void *arg, int fd) {
        called += 'b';
        ioss_unwatch(static_cast<ioss_loop *>(arg), fd);
        ioss_stop(static_cast<ioss_loop *>(arg));
    };
    EXPECT_EQ(ioss_watch(loop, first[0], note, nullptr), 0);
    EXPECT_EQ(ioss_watch(loop, second[0], take_back, loop), 0);
    EXPECT_EQ(ioss_watch(loop, -1, note, nullptr), -1);
    EXPECT_EQ(ioss_watch(loop, 0, nullptr, nullptr), -1);
    EXPECT_EQ(write(first[1], "x", 1), 1);
    EXPECT_EQ(write(second[1], "x", 1), 1);
    EXPECT_EQ(ioss_run(loop, -1), 0);
    EXPECT_EQ(called, "ab");
    utils_testing_step_clock(CLOCK_MONOTONIC, kSecond);
    EXPECT_EQ(ioss_run(loop, 1500), 0);
    EXPECT_EQ(called, "aba") << "the one that was taken back is still ready";
    utils_testing_step_clock(CLOCK_MONOTONIC, 0);
    ioss_unwatch(loop, first[0]);
    for (int i = 0; i < 66; ++i)
        EXPECT_EQ(ioss_watch(loop, 0, note, nullptr), i < 64 ? 0 : -1);
    for (int i = 0; i < 64; ++i)
        ioss_unwatch(loop, 0);
    ioss_stop(loop);
    EXPECT_EQ(ioss_run(loop, -1), 0) << "stopped before";
    EXPECT_EQ(called, "aba");

    auto poll = [](void *, int32_t *, int32_t *wanted_ms) {
        *wanted_ms = wanted;
        endless += *wanted_ms == 0;
        return ++polls;
    };
    EXPECT_EQ(ioss_create(nullptr, poll, 0, 0, 0), -1);
    EXPECT_EQ(ioss_create(first, poll, 0, 0, 0), -1);
    EXPECT_EQ(ioss_create(loop, nullptr, 0, 0, 0), -1);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(ioss_create(loop, poll, 0, 0, 0), i < 4 ? 0 : -1);
    EXPECT_EQ(errno, ENOSPC);
    static int waited;
    static ioss_loop *waiting;
    waiting = loop;
    utils_testing_set_clock(CLOCK_MONOTONIC, kSecond);
    replace_call("poll", [](pollfd *, nfds_t, int limit_ms) {
        waited = limit_ms;
        ioss_stop(waiting);
        errno = EINTR;
        return -1;
    });
    for (auto [limit, poll_ms, expected] :
         {std::tuple(1000, 7, 7), {1000, 5000, 1000}, {1000, 0, 1000}, {-1, 7, 7}, {-1, 0, -1}}) {
        wanted = poll_ms;
        EXPECT_EQ(ioss_run(loop, limit), 0);
        EXPECT_EQ(waited, expected) << limit << " " << poll_ms;
    }
    utils_testing_replace_call("poll", nullptr);
    utils_testing_release_clock(CLOCK_MONOTONIC);
    EXPECT_EQ(ioss_run(loop, 0), 0);
    utils_testing_fail_call("poll", 1, ENOMEM, 1);
    EXPECT_EQ(ioss_run(loop, -1), -1);
    utils_testing_fail_call("eventfd", 1, EMFILE, 1);
    EXPECT_EQ(ioss_loop_create(), nullptr);
    EXPECT_EQ(ioss_free(loop), 0);
    EXPECT_EQ(ioss_create(loop, poll, 0, 0, 0), 0);
    wanted = 1;
    endless = 0;
    std::thread runner([&] { EXPECT_EQ(ioss_run(loop, -1), 0); });
    EXPECT_TRUE(eventually([] { return polls > 40; })) << "each millisecond";
    wanted = 0;
    EXPECT_TRUE(eventually([] { return endless == 1; }));
    ioss_wake(reinterpret_cast<uintptr_t>(loop));
    EXPECT_TRUE(eventually([] { return endless == 2; })) << "no wake";
    ioss_stop(loop);
    runner.join();
    EXPECT_EQ(ioss_free(nullptr), -1);
    EXPECT_EQ(ioss_free(loop), 0);
    int before = polls;
    EXPECT_EQ(ioss_run(loop, 1), 0);
    EXPECT_EQ(polls, before);
    alarm(0);
    ioss_loop_destroy(loop);
    for (int end : {first[0], first[1], second[0], second[1]})
        close(end);
}

}  // namespace
