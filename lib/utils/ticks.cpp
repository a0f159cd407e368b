// SPDX-License-Identifier: Apache-2.0
// The tick globals. A constructor of the library sets them before any code of the program runs;
// they never change.
#include "utils/ticks.h"

#include <unistd.h>

#include <limits>

#include "base/tick_rate.h"
#include "time_base.h"

int32_t msec_per_jiffy = -1;
int32_t tb_ticks_per_jiffy = 0;
int32_t tb_ticks_p_msec = 0;
int32_t tb_ticks_p_usec = 0;
int32_t tb_ticks_p_sec = 0;

namespace utils {

#ifdef __SIZEOF_INT128__
TickReciprocal ms_reciprocal{};
#endif

namespace {

int32_t saturated(int64_t value) {
    using Limits = std::numeric_limits<int32_t>;
    if (value > Limits::max())
        return Limits::max();
    return value < Limits::min() ? Limits::min() : static_cast<int32_t>(value);
}

#ifdef __SIZEOF_INT128__
// `rate` is above 1 and below 2^31.
TickReciprocal reciprocal_of(uint64_t rate) {
    auto bits = static_cast<unsigned>(64 - __builtin_clzll(rate - 1));
    uint64_t upper = uint64_t{1} << (31 + bits);
    uint64_t rest = upper % rate << 32;
    return {rate, (upper / rate << 32) + (rest + rate - 1) / rate, bits - 1};
}
#endif

__attribute__((constructor)) void set_tick_globals() {
    long rate = sysconf(_SC_CLK_TCK);
    msec_per_jiffy = saturated(1000 / (rate > 0 ? rate : 1));
    tb_ticks_per_jiffy = ticks_from_file();
    tb_ticks_p_msec = tb_ticks_per_jiffy / (msec_per_jiffy > 0 ? msec_per_jiffy : 1);
    tb_ticks_p_usec = tb_ticks_p_msec / 1000;
    tb_ticks_p_sec = saturated(int64_t{tb_ticks_p_msec} * 1000);
#ifdef __SIZEOF_INT128__
    if (tb_ticks_p_msec > 1)
        ms_reciprocal = reciprocal_of(static_cast<uint64_t>(tb_ticks_p_msec));
#endif
}

}  // namespace
}  // namespace utils
