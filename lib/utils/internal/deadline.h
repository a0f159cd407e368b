// Deadlines on the monotonic clock.
#pragma once

#include <cstdint>
#include <ctime>

namespace utils {

constexpr long kNanosecondsPerSecond = 1000000000L;

// The same moment with its nanoseconds carried into (or borrowed from) the seconds once.
inline timespec normalized(timespec when) {
    if (when.tv_nsec >= kNanosecondsPerSecond) {
        when.tv_sec += 1;
        when.tv_nsec -= kNanosecondsPerSecond;
    } else if (when.tv_nsec < 0) {
        when.tv_sec -= 1;
        when.tv_nsec += kNanosecondsPerSecond;
    }
    return when;
}

// The monotonic clock `ms` milliseconds from now (not negative).
inline timespec deadline_after(int64_t ms) {
    timespec when{};
    clock_gettime(CLOCK_MONOTONIC, &when);
    when.tv_sec += static_cast<time_t>(ms / 1000);
    when.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    return normalized(when);
}

}  // namespace utils
