// SPDX-License-Identifier: Apache-2.0
// The millisecond clock, out of the time base.
#pragma once

#include <cstdint>

#include "base/tick_rate.h"
#include "base/time_base.h"
#include "utils/ticks.h"

namespace utils {

#ifdef __SIZEOF_INT128__
// Of the rate that the constructor of the tick globals found. A program can write to the globals,
// so a rate that is not this one is divided by.
struct TickReciprocal {
    uint64_t rate;        // ticks in a millisecond; 0 before the constructor, and below 2
    uint64_t multiplier;  // 2^(64 + shift) / rate, rounded up: exact for half of all 64-bit numbers
    unsigned shift;
};
extern TickReciprocal ms_reciprocal __attribute__((visibility("hidden")));

inline uint64_t ticks_to_ms(uint64_t ticks) {
    const uint64_t rate = tick_divisor(tb_ticks_p_msec);
    if (rate != ms_reciprocal.rate || ticks >> 63 != 0)
        return ticks / rate;
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint64_t>(Wide{ticks} * ms_reciprocal.multiplier >> 64) >>
           ms_reciprocal.shift;
}
#else
inline uint64_t ticks_to_ms(uint64_t ticks) {
    return ticks / tick_divisor(tb_ticks_p_msec);
}
#endif

// Milliseconds of the time base; wraps after 2^32 ms.
inline uint32_t now_ms() {
    return static_cast<uint32_t>(ticks_to_ms(time_base()));
}

}  // namespace utils
