// SPDX-License-Identifier: Apache-2.0
// The library for tests: what it makes fail, shortens, replaces, counts and sets, and nothing else.
#include "utils/testing.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "support/support.h"
#include "utils/platform/timebase.h"

namespace {

struct Testing : testing::Test {
    ~Testing() override { utils_testing_reset(); }
};

TEST_F(Testing, FailsExactlyTheCallsThatAreAskedFor) {
    for (auto [nth, times, expected] : {std::tuple(1, 1, "x..."),
                                        {3, 1, "..x."},
                                        {2, 2, ".xx."},
                                        {2, UTILS_TESTING_FROM_THEN_ON, ".xxx"},
                                        {1, 0, "...."}}) {
        utils_testing_reset();
        ASSERT_EQ(utils_testing_fail_call("access", nth, EIO, times), 0);
        std::string seen;
        for (int call = 0; call < 4; ++call)
            seen += access("/", F_OK) == 0 ? '.' : errno == EIO ? 'x' : '?';
        EXPECT_EQ(seen, expected);
        EXPECT_EQ(utils_testing_failures(), std::count(seen.begin(), seen.end(), 'x'));
    }
    EXPECT_EQ(utils_testing_count_calls("access"), 4);
    EXPECT_EQ(utils_testing_count_calls("acces"), -1);
    for (auto [name, nth, error, times] : {std::tuple("acces", 1, 1, 1),
                                           {"access", 0, 1, 1},
                                           {"access", 1, 0, 1},
                                           {"access", 1, -1, 1},
                                           {"access", 1, 1, -1}})
        EXPECT_EQ(utils_testing_fail_call(name, nth, error, times), -1) << name << nth << error;
    EXPECT_EQ(errno, EINVAL);
}

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
timespec moment;
timeval day;

// Every listed function fails when asked to, in the form that this program's sources call.
TEST_F(Testing, EachFunctionSaysItsErrorInItsOwnWay) {
    const std::pair<const char *, bool (*)()> cases[] = {
        {"open", [] { return open("/", O_RDONLY) == -1; }},
        {"fcntl", [] { return fcntl(0, F_GETFD) == -1; }},
        {"ioctl", [] { return ioctl(0, FIONREAD, nullptr) == -1; }},
        {"poll", [] { return poll(nullptr, 0, 0) == -1; }},
        {"lseek", [] { return lseek(0, 0, SEEK_CUR) == -1; }},
        {"fopen", [] { return fopen("/", "r") == nullptr; }},
        {"popen", [] { return popen("true", "r") == nullptr; }},
        {"mmap",
         [] { return mmap(nullptr, 1, 0, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED; }},
        {"shmat", [] { return shmat(-1, nullptr, 0) == reinterpret_cast<void *>(-1); }},
        {"select", [] { return select(-1, nullptr, nullptr, nullptr, nullptr) == -1; }},
        {"fork", [] { return fork() == -1; }},
        {"nanosleep", [] { return nanosleep(nullptr, nullptr) == -1; }},
        {"clock_gettime", [] { return clock_gettime(CLOCK_REALTIME, &moment) == -1; }},
        {"gettimeofday", [] { return gettimeofday(&day, nullptr) == -1; }},
        {"time", [] { return time(nullptr) == -1; }},
        {"posix_fallocate", [] { return (errno = posix_fallocate(-1, 0, 1)) != 0; }},
        {"pthread_mutex_lock", [] { return (errno = pthread_mutex_lock(&mutex)) != 0; }}};
    for (auto [name, fails] : cases) {
        ASSERT_EQ(utils_testing_fail_call(name, 1, EXDEV, 1), 0) << name;
        EXPECT_TRUE(fails()) << name;
        EXPECT_EQ(errno, EXDEV) << name;
        EXPECT_EQ(utils_testing_failures(), 1) << name;
    }
    int listed = 0;
    for (; utils_testing_function(listed) != nullptr; ++listed)
        EXPECT_GE(utils_testing_count_calls(utils_testing_function(listed)), 0) << listed;
    EXPECT_GT(listed, 100);
    EXPECT_EQ(utils_testing_function(-1), nullptr);
}

// Whatever the program's sources were compiled for: each form that there is stands for its function.
TEST_F(Testing, EachFormFailsWithItsFunction) {
    using Form = intptr_t(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t);
    Dl_info own{}, found{};
    ASSERT_NE(dladdr(reinterpret_cast<void *>(utils_testing_reset), &own), 0);
    int forms = 0;
    for (int i = 0; const char *listed = utils_testing_function(i); ++i) {
        std::string name = listed;
        if (name == "malloc" || name == "fclose" || name == "pclose")
            continue;  // need what they end
        for (std::string form : {name, name + "64", "__" + name + "_2", "__" + name + "64_2",
                                 "__" + name + "_chk", "__" + name + "64_chk", "__" + name + "64",
                                 "__" + name + "_time64", "__" + name + "64_time64"}) {
            void *function = dlsym(RTLD_DEFAULT, form.c_str());
            if (function == nullptr || dladdr(function, &found) == 0 ||
                found.dli_fbase != own.dli_fbase)
                continue;
            utils_testing_fail_call(listed, 1, EXDEV, 1);
            intptr_t result = reinterpret_cast<Form *>(function)(-1, 0, 0, 0, 0, 0);
            EXPECT_TRUE(errno == EXDEV || static_cast<int>(result) == EXDEV) << form << result;
            EXPECT_EQ(utils_testing_failures(), 1) << form;
            errno = 0;
            ++forms;
        }
    }
    EXPECT_GT(forms, 70);
}

TEST_F(Testing, AllocationsFailAndBlocksAreCounted) {
    struct {
        void *(*make)();
        bool fails;  // beside a sanitizer, too
    } const makers[] = {
        {[] { return malloc(10); }, true},
        {[] { return calloc(2, 5); }, true},
        {[] { return realloc(nullptr, 10); }, true},
        {[] { return utils_testing_malloc(10); }, true},
        {[] { return utils_testing_calloc(2, 5); }, true},
        {[] { return utils_testing_realloc(nullptr, 10); }, true},
        {[] { return reallocarray(nullptr, 2, 5); }, false},
        {[] { return static_cast<void *>(strdup("text")); }, false},
#ifndef __SANITIZE_THREAD__
        {[] { return aligned_alloc(64, 64); }, false},
        {[] { return memalign(64, 64); }, false},
        {[] {
             void *block = nullptr;
             errno = posix_memalign(&block, 64, 64);
             return block;
         },
         false},
#endif
    };
    int before = utils_testing_live_blocks();
    for (auto &one : makers) {
        void *block = one.make();
        EXPECT_EQ(utils_testing_live_blocks(), before + 1) << &one - makers;
        free(block);
        EXPECT_EQ(utils_testing_live_blocks(), before) << &one - makers;
#ifdef UTILS_TESTING_SANITIZED
        if (!one.fails)
            continue;
#endif
        utils_testing_fail_allocation(1, 1);
        EXPECT_EQ(one.make(), nullptr) << &one - makers;
        EXPECT_EQ(errno, ENOMEM) << &one - makers;
        EXPECT_EQ(utils_testing_live_blocks(), before) << &one - makers;
    }
    auto *block = static_cast<char *>(malloc(4));
    memcpy(block, "abc", 4);
    utils_testing_fail_allocation(2, 1);
    auto *larger = static_cast<char *>(realloc(block, 4000));
    void *refused = malloc(10);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(utils_testing_failures(), 1);
    EXPECT_EQ(refused, nullptr);
    EXPECT_STREQ(larger, "abc");
#ifdef __SANITIZE_THREAD__  // ends the process for it, and counts otherwise
    free(larger);
#else
    auto *volatile grow = realloc;  // what a compiler would tell apart by name
    auto *volatile grow_array = reallocarray;
    utils_testing_fail_allocation(1, 1);
    EXPECT_EQ(grow(larger, 8000), nullptr) << "and the block stays";
    EXPECT_EQ(grow_array(larger, SIZE_MAX, 2), nullptr);
    EXPECT_EQ(grow(larger, SIZE_MAX - 9999), nullptr);
    EXPECT_STREQ(larger, "abc");
    EXPECT_EQ(grow(larger, 0), nullptr);
#endif
    EXPECT_EQ(utils_testing_live_blocks(), before);
}

TEST_F(Testing, StreamsAreShortenedAndPacketsAreNot) {
    for (auto [type, limit, sent] :
         {std::tuple(SOCK_STREAM, size_t{2}, 2), {SOCK_STREAM, 5, 5}, {SOCK_SEQPACKET, 2, 5}}) {
        int ends[2];
        char text[8] = "";
        ASSERT_EQ(socketpair(AF_UNIX, type, 0, ends), 0);
        utils_testing_reset();
        utils_testing_short_io(limit);
        EXPECT_EQ(write(ends[0], "12345", 5), sent);
        EXPECT_EQ(send(ends[0], "6789", 4, 0), std::min(sent, 4));
        EXPECT_EQ(recv(ends[1], text, sizeof text, MSG_PEEK), sent);
        EXPECT_EQ(read(ends[1], text, sizeof text), sent);
        utils_testing_reset();
        EXPECT_EQ(write(ends[0], "12345", 5), 5);
        for (int end : ends)
            close(end);
    }
}

TEST_F(Testing, AReplacementReachesTheFunctionItself) {
    static int asked;
    auto root = [](const char *, int flags, uintptr_t) { return ++asked, open("/", flags); };
    int before = utils_testing_open_descriptors();
    support::replace_call("open", root);
    int fd = open("/no such file", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(utils_testing_open_descriptors(), before + 1);
    utils_testing_replace_call("open", nullptr);
    EXPECT_EQ(open("/no such file", O_RDONLY), -1);
    close(fd);
    EXPECT_EQ(utils_testing_open_descriptors(), before);
    support::replace_call("time", [](time_t *) -> time_t { return 5; });
    support::replace_call("clock_gettime", [](clockid_t, timespec *) { return 7; });
    support::replace_call("gettimeofday", [](timeval *, void *) { return 8; });
    EXPECT_EQ(gettimeofday(&day, nullptr), 8);
    EXPECT_EQ(time(nullptr), 5);
    EXPECT_EQ(clock_gettime(CLOCK_REALTIME, &moment), 7);
    EXPECT_EQ(utils_testing_replace_call("clock", nullptr), -1);
}

TEST_F(Testing, OtherThreadsAreLeftAloneOnDemand) {
    utils_testing_this_thread_only(1);
    utils_testing_fail_call("access", 1, EIO, UTILS_TESTING_FROM_THEN_ON);
    int result = -1;
    std::thread([&] { result = access("/", F_OK); }).join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(utils_testing_count_calls("access"), 1);
}

TEST_F(Testing, ClocksStandMoveAndStep) {
    auto shown = [](clockid_t clock) {
        timespec now{};
        clock_gettime(clock, &now);
        return now.tv_sec * support::kSecond + now.tv_nsec;
    };
    for (clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
        int64_t real = shown(clock);
        ASSERT_EQ(utils_testing_advance_clock(clock, 5000 * support::kSecond), 0);
        EXPECT_NEAR(static_cast<double>(shown(clock) - real) / support::kSecond, 5000, 60);
        ASSERT_EQ(utils_testing_set_clock(clock, 77 * support::kSecond + 7), 0);
        EXPECT_EQ(shown(clock), 77 * support::kSecond + 7);
        utils_testing_step_clock(clock, support::kSecond / 2);
        EXPECT_EQ(shown(clock), 77 * support::kSecond + 7);
        EXPECT_EQ(shown(clock), 77 * support::kSecond + support::kSecond / 2 + 7);
        utils_testing_advance_clock(clock, -78 * support::kSecond);
        EXPECT_EQ(shown(clock), -support::kSecond / 2 + 7);
    }
    utils_testing_set_clock(CLOCK_REALTIME, 9 * support::kSecond - 1);
    gettimeofday(&day, nullptr);
    time_t seconds = 0;
    EXPECT_EQ(time(&seconds), 8);
    EXPECT_EQ(seconds, 8);
    EXPECT_EQ(day.tv_sec, 8);
    EXPECT_EQ(day.tv_usec, 999999);
    utils_testing_release_clock(CLOCK_REALTIME);
    EXPECT_GT(time(nullptr), 1000000);
    EXPECT_EQ(utils_testing_set_clock(CLOCK_PROCESS_CPUTIME_ID, 1), -1);
    ASSERT_EQ(utils_testing_set_ticks(0x123456789AULL), 0);
    EXPECT_EQ(timebase_read(), 0x123456789AULL);
    utils_testing_reset();
    EXPECT_NE(timebase_read(), 0x123456789AULL);
}

}  // namespace
