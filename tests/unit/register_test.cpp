#include "utils/register.h"

#include <cstdarg>
#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "internal/ticks.h"
#include "support/heap.h"
#include "support/support.h"

namespace {

struct Report {
    std::string expression;
    unsigned info, old_value, new_value;
    bool operator==(const Report &) const = default;
};
std::vector<Report> reports;
std::vector<std::string> calls;
int32_t next_id;

int note(const char *what, void *argument) {
    calls.push_back(what + std::string(static_cast<char *>(argument)));
    return -1;
}
int hook(void *argument) {
    return note("hook ", argument);
}
int callback_a(void *argument) {
    return note("a ", argument);
}
int callback_b(void *argument) {
    return note("b ", argument);
}
int32_t classify(void *) {
    return next_id;
}
const cb_ops kClassified = {hook, classify}, kHooked = {hook, nullptr},
             kSilent = {nullptr, classify};

}  // namespace

extern "C" int do_assert(const char *expression, const char *file, unsigned info, ...) {
    EXPECT_STREQ(file, "register");
    va_list values;
    va_start(values, info);
    unsigned old_value = va_arg(values, unsigned), new_value = va_arg(values, unsigned);
    va_end(values);
    reports.push_back({expression, info, old_value, new_value});
    return 0;
}

namespace {

char argument[] = "arg";

template <typename T>
unsigned low(T pointer) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

std::vector<std::string> dispatched(uint32_t key1, int32_t key2, int32_t id, int expected = 0) {
    calls.clear();
    next_id = id;
    unsigned char message[CB_MESSAGE_SIZE] = {};
    EXPECT_EQ(cb_dispatch(key1, key2, message, argument), expected);
    return calls;
}

using Calls = std::vector<std::string>;

// The table is the process's and never shrinks, so one test fills it: groups 1 to 6.
TEST(Register, FindsGroupsInBothWaysAndChecksReplacements) {
    msgQHandle queue = msgQCreate(1, CB_MESSAGE_SIZE, 0, "events");
    EXPECT_EQ(cb_unregister(9, 9, nullptr, 1), UTILS_ENOENT);  // an empty slot ends the search
    EXPECT_EQ(cb_dispatch(9, 9, nullptr, nullptr), 0);

    // Same keys, other classifier: another group, which a dispatch never reaches.
    EXPECT_EQ(cb_register(1, 256, &kClassified, 7, callback_a, queue), 0);
    EXPECT_EQ(cb_register(1, 256, &kSilent, 7, callback_b, nullptr), 0);
    unsigned char message[CB_MESSAGE_SIZE], received[CB_MESSAGE_SIZE];
    memset(message, 0xAB, sizeof message);
    calls.clear();
    next_id = 7;
    uint32_t before = utils::now_ms();
    EXPECT_EQ(cb_dispatch(1, 256, message, argument), 0);
    EXPECT_EQ(calls, (Calls{"hook arg", "a arg"}));
    EXPECT_EQ(msgQReceive(queue, received, sizeof received, 0), 0);
    uint32_t stamp;
    memcpy(&stamp, received + 12, sizeof stamp);
    EXPECT_LE(stamp - before, utils::now_ms() - before);
    memset(received + 12, 0xAB, 4);
    EXPECT_EQ(std::vector<unsigned char>(received, received + sizeof received),
              std::vector<unsigned char>(sizeof received, 0xAB));
    EXPECT_EQ(dispatched(1, 256, 8), (Calls{"hook arg"}));
    EXPECT_EQ(dispatched(1, 256, 7), (Calls{"hook arg", "a arg"}));
    EXPECT_EQ(dispatched(1, 256, 7, 1), (Calls{"hook arg", "a arg"}));  // the queue is full now
    EXPECT_EQ(cb_dispatch(1, 256, nullptr, argument), 1);               // and here is no message

    EXPECT_EQ(cb_register(1, 256, &kClassified, 7, callback_a, queue), 0);
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(cb_register(1, 256, &kClassified, 7, callback_b, nullptr), 0);
    EXPECT_EQ(reports,
              (std::vector<Report>{
                  {"entry->cb == callback", 0x42000000 | 150, low(callback_a), low(callback_b)},
                  {"entry->mq == queue", 0x42000000 | 154, low(queue), 0}}));
    EXPECT_EQ(dispatched(1, 256, 7), (Calls{"hook arg", "b arg"}));
    EXPECT_EQ(cb_unregister(1, 256, &kClassified, 7), 0);
    EXPECT_EQ(cb_unregister(1, 256, &kClassified, 7), UTILS_ENOENT);
    EXPECT_EQ(cb_register(1, 256, &kClassified, 7, callback_a, queue), 0);
    EXPECT_EQ(reports.size(), 2u);

    // Without classify only -1 is served; without the checked key replacements are silent.
    EXPECT_EQ(cb_register(2, 0, &kHooked, -1, callback_a, nullptr), 0);
    EXPECT_EQ(cb_register(2, 0, &kHooked, -1, callback_b, nullptr), 0);
    EXPECT_EQ(dispatched(2, 0, 5), (Calls{"hook arg", "b arg"}));
    EXPECT_EQ(cb_register(3, 0, nullptr, 5, callback_a, nullptr), 0);
    EXPECT_EQ(dispatched(3, 0, 5), Calls{});
    EXPECT_EQ(reports.size(), 2u);

    support::refuse_after = 0;
    int refused = cb_register(5, 0, &kSilent, 1, callback_a, nullptr);
    support::refuse_after = -1;
    EXPECT_EQ(refused, UTILS_ENOMEM);
    EXPECT_EQ(cb_register(5, 0, &kSilent, 1, callback_a, nullptr), 0);
    EXPECT_EQ(cb_register(6, 0, &kSilent, 1, callback_a, nullptr), 0);
    EXPECT_EQ(cb_register(7, 0, &kSilent, 1, callback_a, nullptr), CB_TABLE_FULL);
    EXPECT_EQ(cb_unregister(7, 0, &kSilent, 1), UTILS_ENOENT);
    EXPECT_EQ(cb_register(6, 0, &kSilent, 2, callback_b, nullptr), 0);
    EXPECT_EQ(dispatched(6, 0, 2), Calls{"b arg"});
    msgQDelete(queue);
}

// Group 6 against a map, from several dispatching threads' view in the end; every fifth
// registration grows it.
TEST(Register, AgreesWithAModelWhileItGrows) {
    std::mt19937 random(6);
    std::map<int32_t, cb_callback> model{{1, callback_a}, {2, callback_b}};
    size_t used = 2, capacity = 4;
    std::map<int32_t, bool> kept{{1, true}, {2, true}};  // identifiers that have an entry
    for (int step = 0; step < 4000; ++step) {
        auto id = static_cast<int32_t>(random() % 200 + 1);
        if (random() % 3 == 0) {
            ASSERT_EQ(cb_unregister(6, 0, &kSilent, id), model.erase(id) != 0 ? 0 : UTILS_ENOENT);
        } else {
            int before = support::allocations;
            cb_callback callback = random() % 2 != 0 ? callback_a : callback_b;
            ASSERT_EQ(cb_register(6, 0, &kSilent, id, callback, nullptr), 0);
            ASSERT_EQ(support::allocations - before, used == capacity ? 1 : 0);
            capacity += used == capacity ? 4 : 0;
            used += kept.emplace(id, true).second ? 1 : 0;
            model[id] = callback;
        }
        auto probe = static_cast<int32_t>(random() % 200 + 1);
        Calls expected;
        if (model.count(probe) != 0)
            expected = {model[probe] == callback_a ? "a arg" : "b arg"};
        ASSERT_EQ(dispatched(6, 0, probe), expected);
    }
}

int withdraw(void *) {
    cb_unregister(5, 0, &kSilent, 90);
    for (int32_t id = 100; id < 110; ++id)
        cb_register(5, 0, &kSilent, id, callback_a, nullptr);
    return 0;
}

TEST(Register, CallbackMayWithdrawItselfAndMakeTheGroupGrow) {
    msgQHandle queue = msgQCreate(1, CB_MESSAGE_SIZE, 0, "withdrawn");
    EXPECT_EQ(cb_register(5, 0, &kSilent, 90, withdraw, queue), 0);
    dispatched(5, 0, 90);
    EXPECT_EQ(queue->queued.count, 0);
    EXPECT_EQ(dispatched(5, 0, 109), Calls{"a arg"});
    msgQDelete(queue);
}

}  // namespace
