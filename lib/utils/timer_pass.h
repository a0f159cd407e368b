// SPDX-License-Identifier: Apache-2.0
// Lets the timer service stop a pass of the engine whose thread it has replaced: such a pass waits
// in a handler, with the engine unlocked, and must not go on with its successor's timers.
#pragma once

#include <cstdint>

namespace utils {

// A pass ends when this changes. Guarded like the engine itself, by whoever serialises its calls.
inline uint32_t timer_pass_epoch = 0;

}  // namespace utils
