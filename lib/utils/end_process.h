// SPDX-License-Identifier: Apache-2.0
// The end of a process that somebody else ordered. It is in signals.cpp, beside the other one.
#pragma once

namespace utils {

// As exit(), but buffered output that nobody takes is dropped in time.
[[noreturn]] void end_process(int status);

}  // namespace utils
