// SPDX-License-Identifier: Apache-2.0
// The monotonic clock: now, deadlines, and condition variables that wait by it.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <ctime>

namespace utils {

constexpr long kNanosecondsPerSecond = 1000000000L;

// The monotonic clock `ms` milliseconds from now; now when negative.
inline timespec deadline_after(int64_t ms) {
    if (ms < 0)
        ms = 0;
    timespec when{};
    clock_gettime(CLOCK_MONOTONIC, &when);
    when.tv_sec += static_cast<time_t>(ms / 1000);
    when.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (when.tv_nsec >= kNanosecondsPerSecond) {
        when.tv_sec += 1;
        when.tv_nsec -= kNanosecondsPerSecond;
    }
    return when;
}

inline int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Prepares a condition variable whose deadlines are on the monotonic clock. 0, or an error number.
inline int init_monotonic(pthread_cond_t *condition) {
    pthread_condattr_t attributes;
    if (int error = pthread_condattr_init(&attributes); error != 0)
        return error;
    int error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    if (error == 0)
        error = pthread_cond_init(condition, &attributes);
    pthread_condattr_destroy(&attributes);
    return error;
}

}  // namespace utils
