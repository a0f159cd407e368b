// Deadlines on the monotonic clock.
#pragma once

#include <cstdint>
#include <ctime>

namespace utils {

// The monotonic clock `ms` milliseconds from now (not negative), nanoseconds carried.
inline timespec deadline_after(int64_t ms) {
    timespec when{};
    clock_gettime(CLOCK_MONOTONIC, &when);
    when.tv_sec += static_cast<time_t>(ms / 1000);
    when.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (when.tv_nsec >= 1000000000L) {
        when.tv_sec += 1;
        when.tv_nsec -= 1000000000L;
    }
    return when;
}

}  // namespace utils
