// SPDX-License-Identifier: Apache-2.0
// Processes, told apart from later ones that were given the same number; and waiting for them.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace qelctl {

struct ProcessStatus {
    char state;             // as in /proc/PID/stat
    long threads;           // those that live
    long long start_ticks;  // since the machine started
};

// Of the process that has the number now; none when there is none.
std::optional<ProcessStatus> process_status(int pid);

class Process {
  public:
    // The one that has this number now.
    explicit Process(int pid);
    int pid() const { return pid_; }
    // Whether it has ended, if only its parent has yet to notice. One that was given its number
    // later is not it.
    bool gone() const;

  private:
    int pid_;
    std::optional<ProcessStatus> first_;
};

using Deadline = std::chrono::steady_clock::time_point;
Deadline deadline_in(int seconds);
int milliseconds_to(Deadline end);  // 0 when it has passed

// Whether `condition` holds, asked every few milliseconds, before `end`.
bool holds_before(Deadline end, const std::function<bool()> &condition);

}  // namespace qelctl
