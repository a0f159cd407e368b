// SPDX-License-Identifier: Apache-2.0
// Local times. localtime_r() alone keeps the zone that the process saw first; a look for another
// one may cost a system call, so that it is taken once a second and not on every line of a log.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace utils {

inline std::atomic<uint32_t> zone_second{UINT32_MAX};  // of the latest look

// Looks for a changed zone if nobody has in this second.
inline void follow_zone() {
    auto now = static_cast<uint32_t>(time(nullptr));
    if (zone_second.load(std::memory_order_acquire) == now)
        return;
    tzset();
    // Afterwards, so that a thread which sees the mark sees the zone, too.
    zone_second.store(now, std::memory_order_release);
}

// False for a year that no date can hold; then `local` is all zeros.
inline bool local_time(time_t seconds, tm &local) {
    local = {};
    follow_zone();
    return localtime_r(&seconds, &local) != nullptr;
}

}  // namespace utils
