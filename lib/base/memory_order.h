// SPDX-License-Identifier: Apache-2.0
// Orders of atomic operations, under the house's names.
#pragma once

#include <atomic>

namespace utils {

inline constexpr auto kRelaxed = std::memory_order_relaxed;

}  // namespace utils
