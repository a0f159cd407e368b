// A monotonic clock that a test sets ahead; include it in one source file of a test program.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

namespace support {

inline std::atomic<int> ahead_s{0}, step_s{0};  // seconds, and by how many each look adds to them

}  // namespace support

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
#ifdef SYS_clock_gettime64  // of a 32-bit host: seconds have 64 bits here
    auto result = static_cast<int>(syscall(SYS_clock_gettime64, clock, now));
#else
    auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
#endif
    if (clock == CLOCK_MONOTONIC)
        now->tv_sec += support::ahead_s.fetch_add(support::step_s);
    return result;
}
