// SPDX-License-Identifier: Apache-2.0
// Whether a process lives. Its number alone says nothing, since the system gives numbers out again:
// the moment of its start belongs to it.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"

namespace utils {

// When process `pid` started, in clock ticks since the system did; 0 when that cannot be told. It
// is asked for the main thread, of which an emulator makes nothing up.
inline uint64_t process_start(pid_t pid) {
    char text[1024];
    auto number = static_cast<int>(pid);
    snprintf(text, sizeof text, "/proc/%d/task/%d/stat", number, number);
    Descriptor file(open(text, O_RDONLY | O_CLOEXEC));
    ssize_t length = file ? read(file.get(), text, sizeof text - 1) : 0;
    if (length <= 0)
        return 0;
    text[length] = '\0';
    // The second field is the name in brackets, which may hold anything; the start is the 22nd.
    const char *at = strrchr(text, ')');
    for (int field = 2; at != nullptr && field < 22; ++field)
        at = strchr(at + 1, ' ');
    return at != nullptr ? strtoull(at, nullptr, 10) : 0;
}

// Where the start of either is not known the number has to do.
inline bool process_lives(pid_t pid, uint64_t start) {
    uint64_t found = start != 0 ? process_start(pid) : 0;
    return found != 0 ? found == start : kill(pid, 0) == 0 || errno != ESRCH;
}

}  // namespace utils
