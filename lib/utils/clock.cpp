// Tick globals, counters from the time base, interval statistics and dates. The tick globals are
// set by a constructor of the library, before any code of the program runs, and never change. The
// state of qel_times is kept in relaxed atomics: two threads that resynchronise at once both
// re-anchor, which is harmless.
#include "utils/clock.h"

#include <fcntl.h>
#include <sys/times.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <limits>

#include "internal/descriptor.h"
#include "internal/ticks.h"

int32_t msec_per_jiffy = -1;
int32_t tb_ticks_per_jiffy = 0;
int32_t tb_ticks_p_msec = 0;
int32_t tb_ticks_p_usec = 0;
int32_t tb_ticks_p_sec = 0;

static_assert(sizeof(perf_record) == 20 && offsetof(perf_record, count) == 16);

namespace utils {
namespace {

constexpr const char *kTickFile = "/etc/korin/tb_ticks_per_jiffy";
constexpr int32_t kDefaultTicksPerJiffy = 2000000;
constexpr int32_t kResyncTicks = 12000;

int32_t saturated(int64_t value) {
    using Limits = std::numeric_limits<int32_t>;
    if (value > Limits::max())
        return Limits::max();
    return value < Limits::min() ? Limits::min() : static_cast<int32_t>(value);
}

int32_t ticks_from_file() {
    int32_t ticks = 0;
    Descriptor file(open(kTickFile, O_RDONLY | O_CLOEXEC));
    bool whole =
        file && read(file.get(), &ticks, sizeof ticks) == static_cast<ssize_t>(sizeof ticks);
    return whole && ticks >= 0 ? ticks : kDefaultTicksPerJiffy;
}

__attribute__((constructor)) void set_tick_globals() {
    long rate = sysconf(_SC_CLK_TCK);
    msec_per_jiffy = saturated(1000 / (rate > 0 ? rate : 1));
    tb_ticks_per_jiffy = ticks_from_file();
    tb_ticks_p_msec = tb_ticks_per_jiffy / (msec_per_jiffy > 0 ? msec_per_jiffy : 1);
    tb_ticks_p_usec = tb_ticks_p_msec / 1000;
    tb_ticks_p_sec = saturated(int64_t{tb_ticks_p_msec} * 1000);
}

// qel_times: ticks of the time base plus `offset` give times(); `anchor` is where that ends.
std::atomic<bool> resync{true};
std::atomic<uint32_t> anchor{0};
std::atomic<uint32_t> offset{0};
constexpr auto kRelaxed = std::memory_order_relaxed;

uint32_t time_base_jiffies() {
    return static_cast<uint32_t>(time_base() / tick_divisor(tb_ticks_per_jiffy));
}

}  // namespace
}  // namespace utils

uint32_t msSysClk(void) {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                 static_cast<uint64_t>(now.tv_usec) / 1000);
}

void perf_init(perf_record *record) {
    if (record != nullptr)
        *record = perf_record{};
}

void perf_start(perf_record *record) {
    if (record != nullptr)
        record->start = utils::now_ms();
}

uint32_t perf_stop(perf_record *record) {
    if (record == nullptr)
        return 0;
    uint32_t interval = utils::now_ms() - record->start;
    record->total += interval;
    ++record->count;
    if (record->min == 0 || record->min > interval)
        record->min = interval;
    if (record->max == 0 || record->max < interval)
        record->max = interval;
    return interval;
}

int32_t qel_times(void) {
    using namespace utils;
    if (resync.load(kRelaxed)) {
        clock_t ticks = times(nullptr);
        if (ticks == static_cast<clock_t>(-1))
            return -1;
        offset.store(static_cast<uint32_t>(ticks) - time_base_jiffies(), kRelaxed);
        anchor.store(static_cast<uint32_t>(ticks) + kResyncTicks, kRelaxed);
        resync.store(false, kRelaxed);
    }
    uint32_t value = time_base_jiffies() + offset.load(kRelaxed);
    if (value == static_cast<uint32_t>(-1))
        value = 0;
    int32_t beyond = static_cast<int32_t>(value - anchor.load(kRelaxed));
    if (beyond > 0 || beyond < -kResyncTicks)
        resync.store(true, kRelaxed);
    return static_cast<int32_t>(value);
}
