// SPDX-License-Identifier: Apache-2.0
// The callback registry: its groups, dispatches, and a model of one group that grows.
#include "utils/register.h"

#include <cstdarg>
#include <map>

#include "support/support.h"
#include "utils/platform/rasevt.h"
#include "utils/platform/timebase.h"
#include "utils/ticks.h"

namespace {

std::vector<std::string> seen;  // calls and reports
int32_t next_id;
msgQHandle queue = msgQCreate(1, CB_MESSAGE_SIZE, 0, "events");

template <char name>
int note(void *argument) {
    seen.push_back(name + std::string(static_cast<char *>(argument)));
    return -1;
}
int32_t classify(void *) {
    return next_id;
}
const cb_callback kA = note<'a'>, kB = note<'b'>;
const cb_ops kClassified{note<'h'>, classify}, kHooked{note<'h'>, nullptr},
    kSilent{nullptr, classify};

template <typename T>
unsigned low(T pointer) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

std::string report(const char *expression, int line, unsigned old_value, unsigned new_value) {
    return "VERIFY - Failed expression: " + std::string(expression) +
           ",         file = register, line = " + std::to_string(line) +
           ", user mode          args = " + std::to_string(old_value) + ", " +
           std::to_string(new_value) + "\n";
}

}  // namespace

int rasevt_log(const char *, const char *, int, int, int, unsigned code, ...) {
    va_list values;
    va_start(values, code);
    if (code == RASEVT_ASSERT_MESSAGE)
        seen.push_back(va_arg(values, const char *));
    va_end(values);
    return 0;
}

namespace {

using Seen = std::vector<std::string>;

Seen dispatched(uint32_t key1, int32_t key2, int32_t id, int expected = 0) {
    unsigned char message[CB_MESSAGE_SIZE] = {};
    char argument[] = "!";
    seen.clear();
    next_id = id;
    EXPECT_EQ(cb_dispatch(key1, key2, message, argument), expected);
    return seen;
}

// The table is the process's and never shrinks, so one test fills it: groups 1 to 6.
TEST(Register, FindsGroupsInBothWaysAndChecksReplacements) {
    EXPECT_EQ(cb_unregister(9, 9, nullptr, 1), UTILS_ENOENT);  // an empty slot ends the search
    EXPECT_EQ(cb_dispatch(9, 9, nullptr, nullptr), 0);
    // Same keys, other classifier: another group, which a dispatch never reaches.
    EXPECT_EQ(cb_register(1, 256, &kClassified, 7, kA, queue), 0);
    EXPECT_EQ(cb_register(1, 256, &kSilent, 7, kB, nullptr), 0);
    auto now_ms = [] {
        return static_cast<uint32_t>(timebase_read() / static_cast<uint64_t>(tb_ticks_p_msec));
    };
    uint32_t before = now_ms(), received[CB_MESSAGE_SIZE / 4];
    EXPECT_EQ(dispatched(1, 256, 7), (Seen{"h!", "a!"}));
    EXPECT_EQ(dispatched(1, 256, 7, 1), (Seen{"h!", "a!"}));  // the queue is full now
    EXPECT_EQ(dispatched(1, 256, 8), Seen{"h!"});
    EXPECT_EQ(msgQReceive(queue, received, sizeof received, 0), 0);
    EXPECT_LE(received[3] - before, now_ms() - before);

    seen.clear();
    EXPECT_EQ(cb_register(1, 256, &kClassified, 7, kA, queue), 0);
    EXPECT_EQ(cb_register(1, 256, &kClassified, 7, kB, nullptr), 0);
    EXPECT_EQ(seen, (Seen{report("entry->cb == callback", 150, low(kA), low(kB)),
                          report("entry->mq == queue", 154, low(queue), 0)}));
    EXPECT_EQ(dispatched(1, 256, 7), (Seen{"h!", "b!"}));
    EXPECT_EQ(cb_unregister(1, 256, &kClassified, 7), 0);
    EXPECT_EQ(cb_unregister(1, 256, &kClassified, 7), UTILS_ENOENT);

    // Without the checked key, and after a withdrawal, replacements are silent; without classify
    // only -1 is served.
    EXPECT_EQ(cb_register(2, 0, &kHooked, -1, kA, nullptr), 0);
    seen.clear();
    EXPECT_EQ(cb_register(1, 256, &kClassified, 7, kA, queue), 0);
    EXPECT_EQ(cb_register(2, 0, &kHooked, -1, kB, nullptr), 0);
    EXPECT_EQ(cb_register(3, 0, nullptr, 5, kA, nullptr), 0);
    EXPECT_EQ(seen, Seen{});
    EXPECT_EQ(dispatched(2, 0, 5), (Seen{"h!", "b!"}));
    EXPECT_EQ(dispatched(3, 0, 5), Seen{});

    auto enter = [] { return cb_register(5, 0, &kSilent, 1, kA, nullptr); };
    EXPECT_EQ(support::without_memory(enter), UTILS_ENOMEM);
    int results[] = {0, 0, CB_TABLE_FULL};
    for (uint32_t key = 5; key <= 7; ++key)
        EXPECT_EQ(cb_register(key, 0, &kSilent, 1, kA, nullptr), results[key - 5]);
    EXPECT_EQ(cb_unregister(7, 0, &kSilent, 1), UTILS_ENOENT);
}

// Group 6 against a model; every fifth registration grows it.
TEST(Register, AgreesWithAModelWhileItGrows) {
    std::mt19937 random(6);
    std::map<int32_t, cb_callback> model{{1, kA}};  // null: the entry is kept, but withdrawn
    size_t capacity = 4;
    for (int step = 0; step < 4000; ++step) {
        auto id = static_cast<int32_t>(random() % 200 + 1),
             probe = static_cast<int32_t>(random() % 200 + 1);
        if (random() % 3 == 0) {
            bool live = model.count(id) != 0 && model[id] != nullptr;
            ASSERT_EQ(cb_unregister(6, 0, &kSilent, id), live ? 0 : UTILS_ENOENT);
            if (live)
                model[id] = nullptr;
        } else {
            int before = utils_testing_count_calls("malloc");
            cb_callback callback = random() % 2 != 0 ? kA : kB;
            ASSERT_EQ(cb_register(6, 0, &kSilent, id, callback, nullptr), 0);
            ASSERT_EQ(utils_testing_count_calls("malloc") - before, model.size() == capacity);
            capacity += model.size() == capacity ? 4 : 0;
            model[id] = callback;
        }
        cb_callback served = model.count(probe) != 0 ? model[probe] : nullptr;
        ASSERT_EQ(dispatched(6, 0, probe),
                  served == nullptr ? Seen{} : Seen{served == kA ? "a!" : "b!"});
    }
}

TEST(Register, CallbackMayWithdrawItselfAndMakeTheGroupGrow) {
    cb_callback withdraw = [](void *) {
        cb_unregister(5, 0, &kSilent, 90);
        for (int32_t id = 100; id < 110; ++id)
            cb_register(5, 0, &kSilent, id, kA, nullptr);
        return 0;
    };
    EXPECT_EQ(cb_register(5, 0, &kSilent, 90, withdraw, queue), 0);
    int queued = queue->queued.count;
    dispatched(5, 0, 90);
    EXPECT_EQ(queue->queued.count, queued);
    EXPECT_EQ(dispatched(5, 0, 109), Seen{"a!"});
}

}  // namespace
