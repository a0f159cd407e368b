// SPDX-License-Identifier: Apache-2.0
// The connections that requesters keep between their requests: one for a thread and an address.
// They end after `kIdleLimitMs` without a request (at the process's next one; the daemon has ended
// its side by then), with their thread, and in a forked child.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>

#include "utils/platform/ipc_address.h"

namespace utils::ipc {

constexpr int64_t kNoLimit = -1;

struct Line {
    int fd = -1;
    uint32_t number = 0;         // of the last request; never 0 with a request under way
    int64_t wait_ms = kNoLimit;  // the time-out that its SO_RCVTIMEO was set for
    ipc_address address{};       // from here on the pool's own
    bool pooled = false;         // in an entry of the pool, not on a requester's stack
    bool busy = false;           // then the owner alone uses it
    pthread_t owner{};
    uid_t user = 0;  // a daemon has let this user in
    dev_t device = 0;
    ino_t inode = 0;
    int64_t last_ms = 0;
};

// The calling thread's connection to `address`, in use from now on; null when none is kept.
Line *find_line(const ipc_address &address, int64_t now_ms);

// A new socket, not connected: in the pool, or in `spare` when that is full. In `spare`, its
// descriptor may also be a negated errno value.
Line &new_line(const ipc_address &address, Line &spare);

// After a request that has been answered.
void keep_line(Line &line);

void end_line(Line &line);

}  // namespace utils::ipc
