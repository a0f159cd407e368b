// SPDX-License-Identifier: Apache-2.0
// The rate of the time base: what the system's tick file states, and tick globals as divisors.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

#include "base/descriptor.h"

namespace utils {

constexpr const char *kTickFile = "/etc/korin/tb_ticks_per_jiffy";
constexpr int32_t kDefaultTicksPerJiffy = 2000000;

// Time-base ticks in a clock tick of the kernel, one native 32-bit integer; never negative.
inline int32_t ticks_from_file() {
    int32_t ticks = 0;
    Descriptor file(open(kTickFile, O_RDONLY | O_CLOEXEC));
    bool whole =
        file && read(file.get(), &ticks, sizeof ticks) == static_cast<ssize_t>(sizeof ticks);
    return whole && ticks >= 0 ? ticks : kDefaultTicksPerJiffy;
}

// A tick global as a divisor: never 0, widened with its sign as the target's code does.
inline uint64_t tick_divisor(int32_t ticks) {
    return ticks == 0 ? 1 : static_cast<uint64_t>(int64_t{ticks});
}

}  // namespace utils
