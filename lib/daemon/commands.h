// SPDX-License-Identifier: Apache-2.0
// The commands that every daemon has.
#pragma once

#include "state.h"
#if defined(UTILS_PLATFORM_EXTERNAL) && defined(__powerpc__)
#include "base/time_base_registers.h"
#else
#include "utils/platform/timebase.h"
#endif

namespace utils::service {

inline uint64_t time_base() {
#if defined(UTILS_PLATFORM_EXTERNAL) && defined(__powerpc__)
    return timebase_read_registers();
#else
    return timebase_read();
#endif
}

// Own and built-in commands by number, the daemon's own first; null behind the last one.
const daemon_command *command_at(int number);

// What the last command of the client's process gave.
int cmd_result(int argc, char **argv, FILE *out);

}  // namespace utils::service
