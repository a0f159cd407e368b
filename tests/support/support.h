// SPDX-License-Identifier: Apache-2.0
// What the test programs share beside utils/testing_gtest.h, whose names they find in `support`, too: what depends on
// the emulator and on the platform. Everything here expects to run inside the sandbox. The standard headers that most
// tests need come with it.
#pragma once

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <random>
#include <tuple>
#include <utility>

#include "utils/testing_gtest.h"

namespace support {

using namespace utils_testing;

constexpr int64_t kSecond = 1000000000;  // in nanoseconds

// The standard error of a child without an emulator's words about its crash.
std::string own_words(const Ending &ending);

// Says that a file or directory was last read after 2038, which 32 bits with a sign cannot tell.
void read_late(const std::string &path);

// Whether the programs run under an emulator, and its name as it gives it itself.
bool emulated();
std::string emulator();

// Whether the stand-in serves this platform function, and no product's library that was put before it.
bool is_stand_in(const char *function);

// `command` as it must be started here: behind the emulator's name when there is one.
std::string runnable(const std::string &command);

}  // namespace support
