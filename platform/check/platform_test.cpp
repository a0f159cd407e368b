// SPDX-License-Identifier: Apache-2.0
// What docs/porting.md promises of each platform function, row by row: of the stand-in, or of a product's library
// that is preloaded. Each row runs in a child with an alarm, so that a platform that hangs is named, too.
#include <unistd.h>

#include <cstring>
#include <thread>

#include "support/support.h"
#include "utils/platform/context.h"
#include "utils/platform/ipc.h"
#include "utils/platform/rasevt.h"
#include "utils/platform/release.h"
#include "utils/platform/semaphore.h"
#include "utils/platform/timebase.h"
#include "utils/platform/trace.h"
#include "utils/ticks.h"

namespace {

using support::monotonic_ms;

constexpr int32_t kUser = 0x12345678;

struct Semaphore {
    semaphore_t record{};
    explicit Semaphore(int value) {
        EXPECT_EQ(semaphore_init(&record), 0);
        record.user = kUser;
        EXPECT_EQ(semaphore_count(&record, value), 0);
    }
    ~Semaphore() {
        EXPECT_EQ(semaphore_destroy(&record), 0);
        EXPECT_EQ(record.user, kUser) << "the library's word";
    }
    operator semaphore_t *() { return &record; }
};

#define MUST(function)                             \
    void must_##function();                        \
    TEST(Platform, function) {                     \
        EXPECT_TRUE(support::passes_in_child([&] { \
            alarm(10);                             \
            must_##function();                     \
        })) << #function;                          \
    }                                              \
    void must_##function()

MUST(semaphore_init) {
    semaphore_t record{};
    EXPECT_EQ(semaphore_init(&record), 0);
    EXPECT_EQ(semaphore_value(&record), 1);
    EXPECT_EQ(semaphore_destroy(&record), 0);
}

MUST(semaphore_down) {
    Semaphore sem(2);
    EXPECT_EQ(semaphore_down(sem), 0);
    EXPECT_EQ(semaphore_value(sem), 1);
}

MUST(semaphore_down_to) {
    Semaphore sem(1);
    EXPECT_EQ(semaphore_down_to(sem, 1000), 0);
    int64_t begin = monotonic_ms();
    EXPECT_NE(semaphore_down_to(sem, 60), 0);
    EXPECT_GE(monotonic_ms() - begin, 59);
    EXPECT_LE(semaphore_value(sem), 0);
}

// Each of the two waits for the other, whoever comes first.
MUST(semaphore_up) {
    Semaphore ball(0), goal(0);
    std::thread other([&] {
        for (int i = 0; i < 200; ++i)
            semaphore_down(ball), semaphore_up(goal);
    });
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(semaphore_up(ball), 0);
        i % 2 == 0 ? semaphore_down(goal) : semaphore_down_to(goal, 15000);
    }
    other.join();
    EXPECT_EQ(semaphore_value(goal), 0);
}

MUST(semaphore_value_and_count) {
    Semaphore sem(3);
    EXPECT_EQ(semaphore_value(sem), 3);
    EXPECT_EQ(semaphore_count(sem, -2), 0);
    for (int value = -2; value <= 0; ++value, semaphore_up(sem)) {
        EXPECT_EQ(semaphore_value(sem), value);
        EXPECT_NE(semaphore_down_to(sem, 5), 0);
    }
    EXPECT_EQ(semaphore_down(sem), 0);
}

// Whoever has taken it may destroy it while the one who raised it is still inside.
MUST(semaphore_destroy) {
    for (int i = 0; i < 300; ++i) {
        semaphore_t record{};
        semaphore_init(&record);
        semaphore_count(&record, 0);
        std::thread giver([&] { semaphore_up(&record); });
        semaphore_down(&record);
        EXPECT_EQ(semaphore_destroy(&record), 0);
        memset(&record, 0xEE, sizeof record);
        giver.join();
    }
}

MUST(ep_context_and_sizeof_geps) {
    unsigned size = sizeof_geps();
    EXPECT_LE(size, 256u);
    std::string mine(size, 'm'), theirs(size, 't'), seen(size, '\0');
    EXPECT_EQ(ep_context(mine.data(), nullptr), 0);
    std::thread([&] {
        EXPECT_EQ(sizeof_geps(), size);
        EXPECT_EQ(ep_context(theirs.data(), nullptr), 0);
    }).join();
    EXPECT_EQ(ep_context(theirs.data(), seen.data()), 0);
    EXPECT_EQ(seen, mine) << "a thread's own, copied before the new one is taken";
    EXPECT_EQ(ep_context(nullptr, seen.data()), 0);
    EXPECT_EQ(seen, theirs);
    EXPECT_EQ(ep_context(nullptr, nullptr), 0);
}

MUST(ipcSendRcv_and_ipcSend) {
    ipc_address nobody{};
    nobody.node = 5;
    memcpy(nobody.name, "nobody", sizeof "nobody");
    char request[2044] = "", reply[2048];
    uint32_t length = sizeof reply;
    const uint32_t timeout[2] = {1, 0};
    int64_t begin = monotonic_ms();
    EXPECT_NE(ipcSendRcv(&nobody, 0x4402, request, sizeof request, reply, &length, timeout), 0);
    EXPECT_LT(monotonic_ms() - begin, 5000);
    ipcSend(&nobody, 0x4402, request, sizeof request, timeout);
    EXPECT_LT(monotonic_ms() - begin, 10000);
}

MUST(rasevt_log) {
    std::thread threads[4];
    for (std::thread &thread : threads)
        thread = std::thread([] {
            int64_t begin = monotonic_ms();
            EXPECT_EQ(rasevt_log("f.c", "f", 1, 0, 0, RASEVT_ASSERT_MESSAGE, "a != b"), 0);
            EXPECT_LT(monotonic_ms() - begin, 5000);
        });
    for (std::thread &thread : threads)
        thread.join();
}

MUST(trace_data_init_and_module_cleanup) {
    constexpr unsigned kSize = 5001;
    struct {
        int handle = -1;
        void *address = nullptr;
    } made[16];
    const std::string zeros(kSize, '\0');
    for (int i = 0; i < 16; ++i) {  // the last has the number of the first, as in a second database
        ASSERT_EQ(trace_data_init(&made[i].handle, TRACE_KIND_EVENT_LOG, kSize, "a/b 1", i % 15 + 1,
                                  &made[i].address, 0),
                  0);
        EXPECT_GE(made[i].handle, 0);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(made[i].address) % sizeof(void *), 0u);
        EXPECT_EQ(memcmp(made[i].address, zeros.data(), kSize), 0) << "zero-filled";
        memset(made[i].address, i + 1, kSize);
    }
    for (int i = 0; i < 16; ++i) {
        std::string own(kSize, static_cast<char>(i + 1));
        EXPECT_EQ(memcmp(made[i].address, own.data(), kSize), 0) << "a section of its own";
        EXPECT_EQ(trace_module_cleanup(made[i].handle), 0);
    }
}

MUST(get_release_info) {
    release_info info;
    memset(&info, 'x', sizeof info);
    EXPECT_EQ(get_release_info(0, &info), 0);
    EXPECT_LT(strnlen(info.name, sizeof info.name), sizeof info.name);
    EXPECT_THAT(std::string(info.name, strnlen(info.name, sizeof info.name)),
                testing::MatchesRegex("[^ ]+ [^ ]+.*"));
}

MUST(timebase_read) {
    // Between two looks at the clock, so that the machine may interrupt where it wants.
    int64_t before = monotonic_ms();
    uint64_t first = timebase_read(), last = first;
    int64_t begin = monotonic_ms(), end = begin;
    while (end < begin + 400) {
        uint64_t next = timebase_read();
        ASSERT_GE(next, last) << "goes back";
        last = next;
        end = monotonic_ms();
    }
    last = timebase_read();
    auto shortest = static_cast<double>(end - begin);
    auto longest = static_cast<double>(monotonic_ms() - before);
    double passed = static_cast<double>(last - first) * 1000 / tb_ticks_p_sec;
    double off = support::emulated() ? 0.3 : 0.05;  // an emulator's rate is a short measurement
    EXPECT_GE(passed, shortest * (1 - off) - 2) << "milliseconds by the tick globals";
    EXPECT_LE(passed, longest * (1 + off) + 2) << "milliseconds by the tick globals";
}

}  // namespace
