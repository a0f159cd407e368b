// SPDX-License-Identifier: Apache-2.0
#include "utils/timer.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "support/support.h"
#include "utils/clock.h"
#include "utils/platform/context.h"
#include "utils/platform/timebase.h"

namespace {

uint64_t clock_ms = 1000;  // the engine's clock, set by the tests

}  // namespace

uint64_t timebase_read(void) {
    return clock_ms * static_cast<uint64_t>(tb_ticks_p_msec) +
           static_cast<uint64_t>(tb_ticks_p_msec) / 2;
}

namespace {

std::vector<int> fired;
std::function<void(int)> on_fire;

void record(uintptr_t id, uintptr_t) {
    fired.push_back(static_cast<int>(id));
    if (on_fire)
        on_fire(static_cast<int>(id));
}

std::vector<uint32_t> deltas() {
    std::vector<uint32_t> found;
    for (timer *t = timer_gethead(); t != nullptr; t = t->next)
        found.push_back(t->delta);
    return found;
}

std::vector<int> pass() {
    fired.clear();
    timer_callback();
    return fired;
}

class Timer : public testing::Test {
  protected:
    void TearDown() override {
        on_fire = nullptr;
        timer_cleanup();
        EXPECT_EQ(timer_gethead(), nullptr);
    }
};

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(Timer, ChainsByDueTimeAndFiresWithinFiftyMilliseconds) {
    timerHandle a = timer_create(record, 1, 0), b = timer_create(record, 2, 0),
                c = timer_create(record, 3, 0);
    EXPECT_EQ(timer_gettimeout(), -1);
    timer_set(a, 100);
    timer_set(b, 300);
    timer_set(c, 200);
    EXPECT_THAT(deltas(), ElementsAre(100, 100, 100));
    EXPECT_EQ(timer_gettimeout(), 100);
    clock_ms += 50;
    EXPECT_EQ(timer_gettimeout(), 50);
    EXPECT_THAT(pass(), IsEmpty());
    clock_ms += 1;
    EXPECT_EQ(timer_gettimeout(), 0);
    EXPECT_THAT(pass(), ElementsAre(1));
    clock_ms += 1000;
    EXPECT_THAT(pass(), ElementsAre(3, 2));
    timer_set(a, 30);
    EXPECT_EQ(timer_gettimeout(), 0);
    EXPECT_THAT(pass(), ElementsAre(1));
    for (timerHandle t : {a, b, c}) {
        EXPECT_EQ(timer_ticking(t), 0);
        EXPECT_EQ(timer_delete(t), 0);
    }
}

TEST_F(Timer, HandlesAreValidatedEverywhere) {
    timerHandle t = timer_create(record, 1, 0);
    EXPECT_EQ(timer_cancelx(t), -1);
    EXPECT_EQ(timer_cancel(t), 0);
    timer_set(t, 500);
    EXPECT_EQ(timer_modhandler(t, nullptr), -1);
    EXPECT_EQ(t->handler, record);
    EXPECT_EQ(timer_cancelx(t), 0);
    EXPECT_EQ(timer_modhandler(t, nullptr), 0);
    timer_set(t, 0);
    EXPECT_THAT(pass(), IsEmpty()) << "no handler, nothing to call";

    timer copy = *t;
    EXPECT_EQ(timer_delete(t), 0);
    copy.magicTail = ~TIMER_MAGIC_TAIL;
    for (timerHandle bad : {static_cast<timerHandle>(nullptr), &copy}) {
        EXPECT_EQ(timer_set(bad, 1), -1);
        EXPECT_EQ(timer_cancel(bad), -1);
        EXPECT_EQ(timer_cancelx(bad), -1);
        EXPECT_EQ(timer_delete(bad), -1);
        for (auto body : {std::function<int()>([&] { return timer_ticking(bad); }),
                          std::function<int()>([&] { return timer_modhandler(bad, record); })}) {
            support::Ending ending = support::in_child(body);
            EXPECT_FALSE(ending.exited);
            EXPECT_EQ(ending.status, SIGABRT);
        }
    }
    EXPECT_EQ(support::in_child([] {
                  timer_setulh(nullptr, 0, nullptr);
                  return 0;
              }).status,
              SIGABRT);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Timer, DeletionMarksTheRecord) {
    timerHandle t = timer_create(record, 1, 0);
    timer_delete(t);
    asm volatile("" : "+r"(t));
    EXPECT_EQ(timer_set(t, 1), -1) << "the freed record is not a timer";
}
#endif

TEST_F(Timer, HandlersMaySetCancelAndDeleteAnyTimer) {
    timerHandle self = timer_create(record, 1, 0), other = timer_create(record, 2, 0);
    timerHandle periodic = timer_create_periodic(record, 3, 0);
    timer_set(self, 100);
    timer_set(other, 110);
    timer_set(periodic, 120);
    clock_ms += 120;
    on_fire = [&](int id) {
        if (id == 1) {
            EXPECT_EQ(timer_cancelx(other), 0);
            EXPECT_EQ(timer_delete(self), 0);
        }
        if (id == 3) {
            EXPECT_EQ(timer_ticking(periodic), 1) << "a periodic timer is armed in its own handler";
        }
    };
    EXPECT_THAT(pass(), ElementsAre(1, 3));
    EXPECT_THAT(deltas(), ElementsAre(120));
    clock_ms += 150;
    on_fire = [&](int) { timer_delete(periodic); };
    EXPECT_THAT(pass(), ElementsAre(3));
    EXPECT_EQ(timer_gethead(), nullptr);
    timer_delete(other);
}

void wrapper(timerHandle, uintptr_t ulh, timerHandler handler, uintptr_t arg1, uintptr_t arg2) {
    fired.push_back(static_cast<int>(ulh));
    handler(arg1 + 1, arg2);
}

TEST_F(Timer, WrapperStandsInForTheHandlerWithTheTimersContext) {
    std::string mine(sizeof_geps(), 'm'), theirs(sizeof_geps(), 't'), seen(sizeof_geps(), ' ');
    ep_context(theirs.data(), nullptr);
    timerHandle t = timer_create(record, 10, 0);
    timer_setulh(t, 99, wrapper);
    timer_set(t, 0);
    ep_context(mine.data(), nullptr);
    on_fire = [&](int) { ep_context(nullptr, seen.data()); };
    EXPECT_THAT(pass(), ElementsAre(99, 11));
    EXPECT_EQ(seen, theirs);
    ep_context(nullptr, seen.data());
    EXPECT_EQ(seen, mine);
    timer_set(t, 0);
    pass();
    EXPECT_EQ(seen, mine) << "setting a timer takes on the setter's context";
    timer_delete(t);
}

// What the chain must hold, told by times since the last refresh instead of by differences.
struct Model {
    struct Entry {
        timer *handle;
        uint32_t at, expiry;
    };
    std::vector<Entry> entries;

    void refresh(uint32_t now) {
        if (entries.empty())
            return;
        auto left = static_cast<int32_t>(entries[0].expiry - now);
        uint32_t shift = (left <= 49 ? 0u : static_cast<uint32_t>(left)) - entries[0].at;
        for (Entry &entry : entries)
            entry.at += shift;
    }
    void insert(timer *t, uint32_t ms, uint32_t now) {
        auto place =
            std::find_if(entries.begin(), entries.end(), [&](Entry &e) { return e.at >= ms; });
        entries.insert(place, {t, ms, now + ms});
    }
    bool remove(timer *t) {
        auto place =
            std::find_if(entries.begin(), entries.end(), [&](Entry &e) { return e.handle == t; });
        if (place == entries.end())
            return false;
        entries.erase(place);
        return true;
    }
    void expect_chain(int step) const {
        timer *found = timer_gethead();
        uint32_t previous = 0;
        for (const Entry &entry : entries) {
            ASSERT_EQ(found, entry.handle) << "step " << step;
            ASSERT_EQ(found->delta, entry.at - previous) << "step " << step;
            ASSERT_EQ(found->expiry, entry.expiry);
            previous = entry.at;
            found = found->next;
        }
        ASSERT_EQ(found, nullptr);
    }
};

// Few timers, many of them, and many that fall due together: a clock that is `calm` moves as many
// times less often, and further.
struct Crowd {
    int timers;
    uint32_t reach, grain, calm;
};
class TimerModel : public Timer, public testing::WithParamInterface<Crowd> {};
INSTANTIATE_TEST_SUITE_P(Crowds, TimerModel,
                         testing::Values(Crowd{24, 1500, 1, 1}, Crowd{600, 30000, 1, 1},
                                         Crowd{600, 30000, 1, 100}, Crowd{600, 30000, 6000, 100}));

TEST_P(TimerModel, AgreesOverTenThousandOperationsAcrossTheWrap) {
    const auto [kTimers, kReach, kGrain, kCalm] = GetParam();
    std::mt19937 random(7);
    clock_ms = 0xFFFFFFFFull - 60000;
    std::vector<timer *> timers(static_cast<size_t>(kTimers));
    for (int i = 0; i < kTimers; ++i)
        timers[static_cast<size_t>(i)] =
            i % 4 == 0 ? timer_create_periodic(record, static_cast<uintptr_t>(i), 0)
                       : timer_create(record, static_cast<uintptr_t>(i), 0);
    Model model;
    for (int step = 0; step < 10000; ++step) {
        size_t i = random() % timers.size();
        timer *t = timers[i];
        auto now = static_cast<uint32_t>(clock_ms);
        switch (random() % 6) {
            case 0:
            case 1: {
                // At random, then later and later, then earlier and earlier.
                uint32_t sweep = static_cast<uint32_t>(step) % 1000 * (kReach / 1000);
                uint32_t place[] = {static_cast<uint32_t>(random()) % (2 * kReach), kReach + sweep,
                                    kReach - sweep};
                uint32_t ms = place[step / 1000 % 3] / kGrain * kGrain + (i % 4 == 0 ? 50 : 0);
                model.refresh(now);
                if (model.remove(t))
                    model.refresh(now);
                model.insert(t, ms, now);
                ASSERT_EQ(timer_set(t, ms), 0);
                break;
            }
            case 2: {
                bool armed = timer_ticking(t) == 1;
                if (armed)
                    model.refresh(now);
                ASSERT_EQ(model.remove(t), armed);
                ASSERT_EQ(random() % 2 == 0 ? (timer_cancel(t), armed ? 0 : -1) : timer_cancelx(t),
                          armed ? 0 : -1);
                break;
            }
            case 3: {
                model.refresh(now);
                int expected = model.entries.empty() ? -1 : static_cast<int>(model.entries[0].at);
                ASSERT_EQ(timer_gettimeout(), expected);
                break;
            }
            case 4: {
                on_fire = [&](int id) {
                    model.refresh(now);
                    ASSERT_FALSE(model.entries.empty()) << "step " << step;
                    Model::Entry due = model.entries[0];
                    ASSERT_EQ(id, static_cast<int>(due.handle->arg1)) << "step " << step;
                    ASSERT_EQ(due.at, 0u);
                    model.entries.erase(model.entries.begin());
                    if (id % 4 == 0)
                        model.insert(due.handle, due.handle->period, now);
                    model.expect_chain(step);
                };
                pass();
                model.refresh(now);
                ASSERT_TRUE(model.entries.empty() || model.entries[0].at > 0) << "step " << step;
                break;
            }
            default:
                clock_ms += random() % kCalm == 0 ? random() % 160 * kCalm : 0;
        }
        model.expect_chain(step);
        ASSERT_FALSE(HasFatalFailure());
    }
    ASSERT_GT(clock_ms, 0x100000000ull) << "the run passes the wrap of the 32-bit clock";
    for (timer *t : timers)
        EXPECT_EQ(timer_delete(t), 0);
    EXPECT_EQ(timer_gettimeout(), -1);
}

TEST_F(Timer, CleanupDeletesArmedTimersOnly) {
    timerHandle idle = timer_create(record, 0, 0);
    for (uint32_t ms : {300u, 100u, 200u})
        timer_set(timer_create(record, ms, 0), ms);
    timer_cleanup();
    EXPECT_EQ(timer_gethead(), nullptr);
    EXPECT_EQ(timer_delete(idle), 0);
}

TEST_F(Timer, APassAllocatesNothing) {
    timerHandle periodic = timer_create_periodic([](uintptr_t, uintptr_t) {}, 0, 0);
    timer_set(periodic, 50);
    utils_testing_reset();
    for (int i = 0; i < 1000; ++i) {
        clock_ms += 50;
        timer_callback();
        timer_gettimeout();
    }
    EXPECT_EQ(utils_testing_count_calls("malloc"), 0);
}

TEST_F(Timer, TheIndexGrowsAndShrinksWithTheTimers) {
    int before = utils_testing_live_blocks();
    std::vector<timerHandle> many(1000);
    for (timerHandle &t : many)
        timer_set(t = timer_create(record, 0, 0), 1000);
    EXPECT_GE(utils_testing_live_blocks() - before, 1000 + 1000 / 32);
    for (timerHandle t : many)
        EXPECT_EQ(timer_delete(t), 0);
    EXPECT_LE(utils_testing_live_blocks() - before, 4);
}

TEST_F(Timer, CreationFailsWithoutMemory) {
    for (int i = 0; i < 60; ++i) {  // enough for the index to grow
        timerHandle t =
            support::with_each_failure([] { return timer_create_periodic(record, 0, 0); },
                                       [](timerHandle none) { EXPECT_EQ(none, nullptr); });
        EXPECT_EQ(timer_set(t, 1000), 0);
    }
    utils_testing_reset();
    timer_cleanup();
    EXPECT_EQ(utils_testing_count_calls("malloc"), 0);
}

}  // namespace
