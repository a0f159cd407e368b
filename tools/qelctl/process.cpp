// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

namespace qelctl {

using namespace std::chrono;

constexpr milliseconds kPause(10);

std::optional<ProcessStatus> process_status(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(file, text, '\0');  // whole; nothing from a process that ends meanwhile
    // The second field is the name in brackets, which may hold anything; the state is the third,
    // the number of threads the 20th, the start the 22nd.
    size_t name_end = text.rfind(')');
    ProcessStatus status{};
    if (name_end == std::string::npos ||
        sscanf(text.c_str() + name_end + 1,
               " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %ld %*d %lld",
               &status.state, &status.threads, &status.start_ticks) != 3)
        return {};
    return status;
}

Process::Process(int pid) : pid_(pid), first_(process_status(pid)) {}

bool Process::gone() const {
    std::optional<ProcessStatus> now = process_status(pid_);
    // Its status may be hidden, or no descriptor left to read it with.
    if (!now || !first_)
        return kill(pid_, 0) != 0 && errno == ESRCH;
    // A first thread that has ended leaves a zombie beside the others.
    return now->start_ticks != first_->start_ticks || now->state == 'X' ||
           (now->state == 'Z' && now->threads <= 1);
}

Deadline deadline_in(int seconds) {
    return steady_clock::now() + std::chrono::seconds(seconds);
}

int milliseconds_to(Deadline end) {
    auto left = ceil<milliseconds>(end - steady_clock::now());
    return static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
}

bool holds_before(Deadline end, const std::function<bool()> &condition) {
    while (!condition()) {
        if (milliseconds_to(end) == 0)
            return false;
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

}  // namespace qelctl
