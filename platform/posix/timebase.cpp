// SPDX-License-Identifier: Apache-2.0
// The time base: the processor's own registers on PowerPC, elsewhere the monotonic clock scaled to
// the rate that the tick file states, so that every rate derived from it is right.
#include "utils/platform/timebase.h"

#ifdef __powerpc__

#include "base/time_base_registers.h"

uint64_t timebase_read(void) {
    return timebase_read_registers();
}

#else

#include <unistd.h>

#include <atomic>
#include <ctime>

#include "base/tick_rate.h"

namespace utils {
namespace {

constexpr uint64_t kNanoseconds = 1000000000;

// Ticks in a second, and what is left of them in a nanosecond behind the whole ones, as a fraction
// of 2^64 that is rounded up: a product of it with less than a second is too large by less than a
// billionth, so its whole part is exact.
struct Scale {
    uint64_t rate;
    uint64_t fraction;
};

// Read once, when the stand-in is loaded; a constructor that runs before it reads the file itself.
Scale scale;
std::atomic<bool> scale_is_known{false};

void read_rate() {
    int32_t ticks = ticks_from_file();
    ticks = ticks > 0 ? ticks : kDefaultTicksPerJiffy;
    scale.rate = static_cast<uint64_t>(sysconf(_SC_CLK_TCK)) * static_cast<uint64_t>(ticks);
    uint64_t part = (scale.rate % kNanoseconds) << 32;
    uint64_t rest = (part % kNanoseconds) << 32;
    scale.fraction = (part / kNanoseconds << 32) + (rest + kNanoseconds - 1) / kNanoseconds;
    scale_is_known.store(true, std::memory_order_release);
}

__attribute__((constructor)) void read_rate_at_load() {
    read_rate();
}

// The upper half of the product; `small` is below 2^32.
uint64_t upper_half(uint64_t large, uint64_t small) {
#ifdef __SIZEOF_INT128__
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint64_t>(Wide{large} * small >> 64);
#else
    return ((large >> 32) * small + ((large & UINT32_MAX) * small >> 32)) >> 32;
#endif
}

}  // namespace
}  // namespace utils

using namespace utils;

uint64_t timebase_read(void) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (!scale_is_known.load(std::memory_order_acquire))
        read_rate();
    auto nanoseconds = static_cast<uint64_t>(now.tv_nsec);
    return static_cast<uint64_t>(now.tv_sec) * scale.rate +
           scale.rate / kNanoseconds * nanoseconds + upper_half(scale.fraction, nanoseconds);
}

#endif
