// The time base and the millisecond clock.
#pragma once

#include <cstdint>

#include "platform/timebase.h"
#include "utils/clock.h"

namespace utils {

inline uint64_t time_base() {
#if defined(UTILS_PLATFORM_EXTERNAL) && defined(__powerpc__)
    return timebase_read_registers();
#else
    return timebase_read();
#endif
}

// A tick global as a divisor: never 0, widened with its sign as the target's code does.
inline uint64_t tick_divisor(int32_t ticks) {
    return ticks == 0 ? 1 : static_cast<uint64_t>(int64_t{ticks});
}

// Milliseconds of the time base; wraps after 2^32 ms.
inline uint32_t now_ms() {
    return static_cast<uint32_t>(time_base() / tick_divisor(tb_ticks_p_msec));
}

}  // namespace utils
