// The time base and the millisecond clock.
#pragma once

#include <cstdint>

#include "base/tick_rate.h"
#include "utils/ticks.h"
#if defined(UTILS_PLATFORM_EXTERNAL) && defined(__powerpc__)
#include "base/time_base_registers.h"
#else
#include "utils/platform/timebase.h"
#endif

namespace utils {

inline uint64_t time_base() {
#if defined(UTILS_PLATFORM_EXTERNAL) && defined(__powerpc__)
    return timebase_read_registers();
#else
    return timebase_read();
#endif
}

// Milliseconds of the time base; wraps after 2^32 ms.
inline uint32_t now_ms() {
    return static_cast<uint32_t>(time_base() / tick_divisor(tb_ticks_p_msec));
}

}  // namespace utils
