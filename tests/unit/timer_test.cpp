// SPDX-License-Identifier: Apache-2.0
// The timer engine: its chain, its pass, what handlers may do, and a model of ten thousand operations.
#include "utils/timer.h"

#include "support/support.h"
#include "utils/clock.h"
#include "utils/platform/context.h"
#include "utils/platform/timebase.h"

static uint64_t clock_ms = 1000;  // the engine's clock, set by the tests

uint64_t timebase_read(void) {
    auto ticks = static_cast<uint64_t>(tb_ticks_p_msec);
    return clock_ms * ticks + ticks / 2;
}

namespace {

using support::signal_of;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<int> fired;
std::function<void(int)> on_fire;

void record(uintptr_t id, uintptr_t) {
    fired.push_back(static_cast<int>(id));
    if (on_fire)
        on_fire(static_cast<int>(id));
}

// A timer that notes its number, armed for `ms` unless that is negative.
timerHandle make(int id, int ms = -1, bool periodic = false) {
    timerHandle t =
        (periodic ? timer_create_periodic : timer_create)(record, static_cast<uintptr_t>(id), 0);
    if (ms >= 0) {
        EXPECT_EQ(timer_set(t, static_cast<uint32_t>(ms)), 0);
    }
    return t;
}

std::vector<uint32_t> deltas() {
    std::vector<uint32_t> found;
    for (timer *t = timer_gethead(); t != nullptr; t = t->next)
        found.push_back(t->delta);
    return found;
}

// What fires in a pass `ms` later.
std::vector<int> pass(unsigned ms = 0) {
    clock_ms += ms;
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

TEST_F(Timer, ChainsByDueTimeAndFiresWithinFiftyMilliseconds) {
    EXPECT_EQ(timer_gettimeout(), -1);
    timerHandle t[] = {make(1, 100), make(2, 300), make(3, 200)};
    EXPECT_THAT(deltas(), ElementsAre(100, 100, 100));
    EXPECT_EQ(timer_gettimeout(), 100);
    EXPECT_THAT(pass(50), IsEmpty());
    EXPECT_EQ(timer_gettimeout(), 50);
    clock_ms += 1;
    EXPECT_EQ(timer_gettimeout(), 0);
    EXPECT_THAT(pass(), ElementsAre(1));
    EXPECT_THAT(pass(1000), ElementsAre(3, 2));
    timer_set(t[0], 30);
    EXPECT_EQ(timer_gettimeout(), 0);
    EXPECT_THAT(pass(), ElementsAre(1));
    timer_set(t[1], 300);
    timer_set(t[2], 200);
    timer_cleanup();
    EXPECT_EQ(timer_gethead(), nullptr);
    EXPECT_EQ(timer_ticking(t[0]), 0) << "only armed timers go";
    EXPECT_EQ(timer_delete(t[0]), 0);
}

TEST_F(Timer, HandlesAreValidatedEverywhere) {
    timerHandle t = make(1);
    EXPECT_EQ(timer_cancelx(t), -1);
    EXPECT_EQ(timer_cancel(t), 0);
    timer_set(t, 500);
    EXPECT_EQ(timer_modhandler(t, nullptr), -1);
    EXPECT_EQ(t->handler, record);
    EXPECT_EQ(timer_cancelx(t), 0);
    EXPECT_EQ(timer_modhandler(t, nullptr), 0);
    timer_set(t, 0);
    EXPECT_THAT(pass(), IsEmpty()) << "no handler, nothing to call";
    EXPECT_EQ(signal_of([&] { return timer_setulh(t, 0, nullptr), 0; }), SIGABRT);

    timer headless = *t, tailless = *t;
    EXPECT_EQ(timer_delete(t), 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    asm volatile("" : "+r"(t));
    EXPECT_EQ(timer_set(t, 1), -1) << "the freed record is not a timer";
#endif
    headless.magicHead = ~TIMER_MAGIC_HEAD;
    tailless.magicTail = ~TIMER_MAGIC_TAIL;
    for (timerHandle bad : {static_cast<timerHandle>(nullptr), &headless, &tailless}) {
        EXPECT_EQ(timer_set(bad, 1), -1);
        EXPECT_EQ(timer_cancel(bad), -1);
        EXPECT_EQ(timer_cancelx(bad), -1);
        EXPECT_EQ(timer_delete(bad), -1);
        EXPECT_EQ(signal_of([&] { return timer_ticking(bad); }), SIGABRT);
        EXPECT_EQ(signal_of([&] { return timer_modhandler(bad, record); }), SIGABRT);
    }
    timerWrapper none = [](timerHandle, uintptr_t, timerHandler, uintptr_t, uintptr_t) {};
    EXPECT_EQ(signal_of([&] { return timer_setulh(nullptr, 0, none), 0; }), SIGABRT);
}

TEST_F(Timer, HandlersMaySetCancelAndDeleteAnyTimer) {
    timerHandle self = make(1, 100), other = make(2, 110), periodic = make(3, 120, true);
    on_fire = [&](int id) {
        if (id == 3) {
            EXPECT_EQ(timer_ticking(periodic), 1) << "a periodic timer is armed in its own handler";
            return;
        }
        EXPECT_EQ(timer_cancelx(other), 0);
        EXPECT_EQ(timer_delete(self), 0);
    };
    EXPECT_THAT(pass(120), ElementsAre(1, 3));
    EXPECT_THAT(deltas(), ElementsAre(120));
    on_fire = [&](int) { timer_delete(periodic); };
    EXPECT_THAT(pass(150), ElementsAre(3));
    EXPECT_EQ(timer_gethead(), nullptr);
    timer_delete(other);
}

TEST_F(Timer, WrapperStandsInForTheHandlerWithTheTimersContext) {
    std::string mine(sizeof_geps(), 'm'), theirs(sizeof_geps(), 't'), seen(sizeof_geps(), ' ');
    ep_context(theirs.data(), nullptr);
    timerHandle t = make(10);
    timer_setulh(
        t, 99,
        [](timerHandle, uintptr_t ulh, timerHandler handler, uintptr_t arg1, uintptr_t arg2) {
            fired.push_back(static_cast<int>(ulh));
            handler(arg1 + 1, arg2);
        });
    on_fire = [&](int) { ep_context(nullptr, seen.data()); };
    for (const std::string &setter :
         {theirs, mine}) {  // a timer takes on the context of who sets it
        timer_set(t, 0);
        ep_context(mine.data(), nullptr);
        EXPECT_THAT(pass(), ElementsAre(99, 11));
        EXPECT_EQ(seen, setter);
        ep_context(nullptr, seen.data());
        EXPECT_EQ(seen, mine);
    }
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
        auto left = entries.empty() ? 0 : static_cast<int32_t>(entries[0].expiry - now);
        uint32_t before = entries.empty() ? 0 : entries[0].at;
        for (Entry &entry : entries)
            entry.at += (left <= 49 ? 0 : static_cast<uint32_t>(left)) - before;
    }
    // What is left of the first one's time, or -1.
    int first(uint32_t now) {
        refresh(now);
        return entries.empty() ? -1 : static_cast<int>(entries[0].at);
    }
    void insert(timer *t, uint32_t ms, uint32_t now) {
        auto place =
            std::find_if(entries.begin(), entries.end(), [&](Entry &e) { return e.at >= ms; });
        entries.insert(place, {t, ms, now + ms});
    }
    bool remove(timer *t) {
        return std::erase_if(entries, [&](Entry &e) { return e.handle == t; }) == 1;
    }
    void expect_chain(int step) const {
        SCOPED_TRACE(step);
        timer *found = timer_gethead();
        uint32_t previous = 0;
        for (const Entry &entry : entries) {
            ASSERT_EQ(found, entry.handle);
            ASSERT_EQ(found->delta, entry.at - previous);
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
        timers[static_cast<size_t>(i)] = make(i, -1, i % 4 == 0);
    Model model;
    for (int step = 0; step < 10000; ++step) {
        size_t i = random() % timers.size();
        timer *t = timers[i];
        auto now = static_cast<uint32_t>(clock_ms);
        auto what = random() % 6;
        if (what < 2) {  // at random, then later and later, then earlier and earlier
            uint32_t sweep = static_cast<uint32_t>(step) % 1000 * (kReach / 1000);
            uint32_t place[] = {static_cast<uint32_t>(random()) % (2 * kReach), kReach + sweep,
                                kReach - sweep};
            uint32_t ms = place[step / 1000 % 3] / kGrain * kGrain + (i % 4 == 0 ? 50 : 0);
            model.refresh(now);
            if (model.remove(t))
                model.refresh(now);
            model.insert(t, ms, now);
            ASSERT_EQ(timer_set(t, ms), 0);
        } else if (what == 2) {
            bool armed = timer_ticking(t) == 1;
            if (armed)
                model.refresh(now);
            ASSERT_EQ(model.remove(t), armed);
            bool tells = random() % 2 != 0;
            ASSERT_EQ((tells ? timer_cancelx : timer_cancel)(t), armed || !tells ? 0 : -1);
            ASSERT_EQ(t->next, nullptr);
            ASSERT_EQ(t->delta, 0u);
        } else if (what == 3) {
            ASSERT_EQ(timer_gettimeout(), model.first(now));
        } else if (what == 4) {
            on_fire = [&](int id) {
                ASSERT_EQ(model.first(now), 0);
                Model::Entry due = model.entries[0];
                ASSERT_EQ(id, static_cast<int>(due.handle->arg1));
                model.entries.erase(model.entries.begin());
                if (id % 4 == 0)
                    model.insert(due.handle, due.handle->period, now);
                model.expect_chain(step);
            };
            pass();
            ASSERT_NE(model.first(now), 0) << "step " << step;
        } else if (random() % kCalm == 0) {
            clock_ms += random() % 160 * kCalm;
        }
        model.expect_chain(step);
        ASSERT_FALSE(HasFatalFailure());
    }
    ASSERT_GT(clock_ms, 0x100000000ull) << "the run passes the wrap of the 32-bit clock";
    for (timer *t : timers)
        EXPECT_EQ(timer_delete(t), 0);
    EXPECT_EQ(timer_gettimeout(), -1);
}

TEST_F(Timer, MemoryIsTakenAtCreationAndGivenBackAtDeletion) {
    int before = utils_testing_live_blocks();
    std::vector<timerHandle> many(1000);
    for (timerHandle &t : many)
        t = make(0, 1000, true);
    EXPECT_GE(utils_testing_live_blocks() - before, 1000 + 1000 / 32);
    fired.reserve(fired.size() + many.size());
    int allocations = utils_testing_count_calls("malloc");
    clock_ms += 1000;
    timer_callback();
    EXPECT_EQ(timer_gettimeout(), 1000);
    EXPECT_EQ(utils_testing_count_calls("malloc"), allocations) << "a pass allocates nothing";
    for (timerHandle t : many)
        EXPECT_EQ(timer_delete(t), 0);
    EXPECT_LE(utils_testing_live_blocks() - before, 4);
    for (int i = 0; i < 60; ++i) {  // enough for the index to grow
        auto create = [] { return timer_create_periodic(record, 0, 0); };
        auto refused = [](timerHandle none) { EXPECT_EQ(none, nullptr); };
        EXPECT_EQ(timer_set(support::with_each_failure(create, refused), 1000), 0);
    }
    allocations = utils_testing_count_calls("malloc");
    timer_cleanup();
    EXPECT_EQ(utils_testing_count_calls("malloc"), allocations);
}

}  // namespace
