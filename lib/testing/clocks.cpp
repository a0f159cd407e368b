// SPDX-License-Identifier: Apache-2.0
// Clocks that a test stops, moves and steps.
#include <dlfcn.h>
#include <sys/time.h>

#include <cstdint>
#include <ctime>

#include "taken.h"

namespace utils {
namespace {

constexpr int64_t kSecond = 1000000000;

// 64 bits in two words: not every processor has wider atomics.
struct Wide {
    std::atomic<uint32_t> upper{0}, lower{0};
    void set(int64_t value) {
        upper = static_cast<uint32_t>(static_cast<uint64_t>(value) >> 32);
        lower = static_cast<uint32_t>(value);
    }
    int64_t get() const { return static_cast<int64_t>(uint64_t{upper} << 32 | lower); }
};

enum Course { kReal, kAhead, kStopped };

struct Setting {
    std::atomic<Course> course{kReal};
    Wide ns;    // kAhead: before the real time; kStopped: the time
    Wide step;  // with each look
    std::atomic<int> looks{0};
};

// The even and the odd version of a setting: whoever reads, even a signal handler that interrupts a
// change, finds the last one whole.
class SetClock {
  public:
    // What is shown at the real time `real`.
    int64_t shown(int64_t real) {
        for (;;) {
            unsigned seen = version_;
            Setting &setting = settings_[seen % 2];
            Course course = setting.course;
            int64_t ns = setting.ns.get(), step = setting.step.get();
            if (version_ != seen)
                continue;
            if (course == kReal)
                return real;
            int64_t looks = step != 0 ? setting.looks.fetch_add(1) : 0;
            return (course == kAhead ? real : 0) + ns + looks * step;
        }
    }
    bool is_set() const { return settings_[version_ % 2].course != kReal; }

    // The change starts from what the last look has shown.
    template <typename Change>
    void change(Change body) {
        const Setting &last = settings_[version_ % 2];
        Setting &next = settings_[(version_ + 1) % 2];
        int looks = last.looks;
        next.course = last.course.load();
        next.ns.set(last.ns.get() + (looks > 0 ? looks - 1 : 0) * last.step.get());
        next.step.set(last.step.get());
        next.looks = 0;
        body(next);
        ++version_;
    }

  private:
    Setting settings_[2];
    std::atomic<unsigned> version_{0};
};

constinit SetClock realtime, monotonic;
constinit SetClock ticks;

// The set clock that stands for `clock`, or null.
SetClock *clock_of(clockid_t clock) {
    switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
            return &realtime;
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_BOOTTIME:
            return &monotonic;
        default:
            return nullptr;
    }
}

// The real moment, in nanoseconds.
int64_t real_time() {
    Passing passing;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * kSecond + now.tv_nsec;
}

template <typename Change>
int change(clockid_t clock, Change body) {
    SetClock *set = clock_of(clock);
    if (set == nullptr)
        return minus_one(EINVAL);
    set->change(body);
    return 0;
}

// Puts what is shown in the place of a real time, `fraction` being counted in units of `unit`
// nanoseconds.
template <typename Seconds, typename Fraction>
void show(SetClock *clock, Seconds &seconds, Fraction &fraction, int64_t unit) {
    if (clock == nullptr || !clock->is_set())
        return;
    int64_t ns = clock->shown(int64_t{seconds} * kSecond + int64_t{fraction} * unit);
    int64_t whole = ns / kSecond - (ns % kSecond < 0);
    seconds = static_cast<Seconds>(whole);
    fraction = static_cast<Fraction>((ns - whole * kSecond) / unit);
}

#if __SIZEOF_LONG__ == 4
// Of callers whose seconds have 32 bits.
struct NarrowTimespec {
    int32_t tv_sec, tv_nsec;
};
struct NarrowTimeval {
    int32_t tv_sec, tv_usec;
};
#endif

RECORD(clock_gettime)
RECORD(gettimeofday)
RECORD(time)

// A call that is not to fail: of the program's own function or the next definition.
template <typename Function, typename... Arguments>
int looked(const Verdict &verdict, Next &next, Arguments... arguments) {
    if (verdict.instead == nullptr)
        return reinterpret_cast<Function *>(next.find())(arguments...);
    Passing passing;
    return reinterpret_cast<Function *>(verdict.instead)(arguments...);
}

template <typename Time>
int look(Next &next, clockid_t clock, Time *now) {
    const Verdict verdict = judge(record_clock_gettime);
    if (verdict.error != 0)
        return minus_one(verdict.error);
    int result = looked<int(clockid_t, Time *)>(verdict, next, clock, now);
    if (result == 0 && verdict.instead == nullptr)
        show(clock_of(clock), now->tv_sec, now->tv_nsec, 1);
    return result;
}

template <typename Time>
int look_of_day(Next &next, Time *now, void *zone) {
    const Verdict verdict = judge(record_gettimeofday);
    if (verdict.error != 0)
        return minus_one(verdict.error);
    int result = looked<int(Time *, void *)>(verdict, next, now, zone);
    if (result == 0 && verdict.instead == nullptr)
        show(&realtime, now->tv_sec, now->tv_usec, 1000);
    return result;
}

// time() in all its widths.
template <typename Seconds>
Seconds look_at_seconds(Next &next, Seconds *now) {
    const Verdict verdict = judge(record_time);
    if (verdict.error != 0)
        return static_cast<Seconds>(minus_one(verdict.error));
    Seconds seconds = 0;
    if (verdict.instead != nullptr) {
        Passing passing;
        seconds = reinterpret_cast<Seconds (*)(Seconds *)>(verdict.instead)(nullptr);
    } else {
        seconds = reinterpret_cast<Seconds (*)(Seconds *)>(next.find())(nullptr);
        if (realtime.is_set())
            seconds = static_cast<Seconds>(realtime.shown(real_time()) / kSecond);
    }
    if (now != nullptr)
        *now = seconds;
    return seconds;
}

NEXT(timebase_read)

}  // namespace

void reset_clocks() {
    for (SetClock *clock : {&realtime, &monotonic, &ticks})
        clock->change([](Setting &setting) {
            setting.course = kReal;
            setting.ns.set(0);
            setting.step.set(0);
        });
}

}  // namespace utils

using namespace utils;

#define EXPORTED __attribute__((visibility("default")))
#define SHOWS(symbol, Result, parameters)                                  \
    NEXT(symbol)                                                           \
    extern "C" EXPORTED Result taken_##symbol parameters __asm__(#symbol); \
    Result taken_##symbol parameters

// On 32-bit systems the plain names are those of callers whose seconds have 32 bits.
#if __SIZEOF_LONG__ == 4
SHOWS(clock_gettime, int, (clockid_t clock, NarrowTimespec *now)) {
    return look(next_clock_gettime, clock, now);
}
SHOWS(__clock_gettime64, int, (clockid_t clock, timespec *now)) {
    return look(next___clock_gettime64, clock, now);
}
SHOWS(gettimeofday, int, (NarrowTimeval * now, void *zone)) {
    return look_of_day(next_gettimeofday, now, zone);
}
SHOWS(__gettimeofday64, int, (timeval * now, void *zone)) {
    return look_of_day(next___gettimeofday64, now, zone);
}
SHOWS(time, int32_t, (int32_t * now)) {
    return look_at_seconds(next_time, now);
}
SHOWS(__time64, int64_t, (int64_t * now)) {
    return look_at_seconds(next___time64, now);
}
#else
SHOWS(clock_gettime, int, (clockid_t clock, timespec *now)) {
    return look(next_clock_gettime, clock, now);
}
SHOWS(gettimeofday, int, (timeval * now, void *zone)) {
    return look_of_day(next_gettimeofday, now, zone);
}
SHOWS(time, int64_t, (int64_t * now)) {
    return look_at_seconds(next_time, now);
}
#endif

extern "C" EXPORTED uint64_t taken_timebase_read() __asm__("timebase_read");
uint64_t taken_timebase_read() {
    if (ticks.is_set())
        return static_cast<uint64_t>(ticks.shown(0));
    auto *next = reinterpret_cast<uint64_t (*)()>(next_timebase_read.find());
    return next != nullptr ? next() : 0;
}

EXPORTED int utils_testing_set_clock(clockid_t clock, int64_t ns) {
    return change(clock, [ns](Setting &setting) {
        setting.course = kStopped;
        setting.ns.set(ns);
        setting.step.set(0);
    });
}

EXPORTED int utils_testing_advance_clock(clockid_t clock, int64_t ns) {
    return change(clock, [ns](Setting &setting) {
        if (setting.course == kReal)
            setting.course = kAhead;
        setting.ns.set(setting.ns.get() + ns);
    });
}

EXPORTED int utils_testing_step_clock(clockid_t clock, int64_t ns) {
    return change(clock, [ns](Setting &setting) {
        if (setting.course == kReal)
            setting.course = kAhead;
        setting.step.set(ns);
    });
}

EXPORTED int utils_testing_release_clock(clockid_t clock) {
    return change(clock, [](Setting &setting) {
        setting.course = kReal;
        setting.ns.set(0);
        setting.step.set(0);
    });
}

EXPORTED int utils_testing_set_ticks(uint64_t now) {
    Dl_info first{}, own{};
    void *found = dlsym(RTLD_DEFAULT, "timebase_read");
    if (dladdr(found, &first) == 0 || dladdr(&ticks, &own) == 0 || first.dli_fbase != own.dli_fbase)
        return minus_one(ENOTSUP);
    ticks.change([now](Setting &setting) {
        setting.course = kStopped;
        setting.ns.set(static_cast<int64_t>(now));
    });
    return 0;
}
