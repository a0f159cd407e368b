// SPDX-License-Identifier: Apache-2.0
// The time base: of the processor where a product's library may read it inline, else of the platform.
#pragma once

#include <cstdint>

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

}  // namespace utils
