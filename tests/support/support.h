// SPDX-License-Identifier: Apache-2.0
// What the test programs share: captured output, child processes, files of the system image and a
// settable clock. Everything here expects to run inside the sandbox. The standard headers that most
// tests need come with it.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "utils/testing.h"

namespace support {

constexpr int64_t kSecond = 1000000000;  // in nanoseconds

// What this process holds. A test that has ended with more than it began with has failed, but for what it says here
// that it leaves, for a reason.
struct Holdings {
    int descriptors = 0;
    int threads = 0;
    int segments = 0;  // of System V shared memory
    int blocks = 0;    // of memory
};
Holdings held();
void leaves(const Holdings &more);

// The threads of this process, and the shared segments of the image.
int threads();
int segments();

// What `body` writes to `descriptor` (1: standard output, 2: standard error), at any level: stdio
// or write().
std::string captured(int descriptor, const std::function<void()> &body);

// How a child process ended.
struct Ending {
    bool exited = false;  // with `status`, otherwise by signal `status`
    int status = -1;
    std::string out;  // its standard output
    std::string err;  // its standard error, without an emulator's words about a crash
};

// Runs `body` in a forked child and waits for it; the child exits with what `body` returns. Core
// files of a dying child are switched off unless `core` says otherwise.
Ending in_child(const std::function<int()> &body, bool core = false);

// The signal that ends a forked child which runs `body`, or 0 when it exits.
int signal_of(const std::function<int()> &body);

// Runs `body`, which uses EXPECT_* itself, in a forked child: for what a process can do only once,
// or only without threads of another test. Succeeds when nothing failed there.
testing::AssertionResult passes_in_child(const std::function<void()> &body);

// A process that runs `body`, which calls ready() once others may go on: the constructor waits for that, or for its
// end. The process dies with the object, or with the test.
class Process {
  public:
    explicit Process(const std::function<int(const std::function<void()> &ready)> &body);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return pid_; }
    bool is_ready() const { return ready_; }
    int ending();  // waits for its end, which it gives as waitpid() does

  private:
    pid_t pid_;
    bool ready_;
    int status_ = -1;
};

// Writes or reads a whole file of the image; a failure to write stops the test program.
void write_file(const std::string &path, std::string_view content);
std::string read_file(const std::string &path);

// Says that a file or directory was last read after 2038, which 32 bits with a sign cannot tell.
void read_late(const std::string &path);

// Runs `call` with its first, then its second, ... allocation failing, each time followed by
// `refused(result)`, until it runs through undisturbed. Returns its result then.
template <typename Call, typename Refused>
auto with_each_failure(Call call, Refused refused) {
    for (int nth = 1;; ++nth) {
        utils_testing_fail_allocation(nth, UTILS_TESTING_ONCE);
        auto result = call();
        utils_testing_fail_allocation(1, 0);
        if (utils_testing_failures() == 0)
            return result;
        refused(result);
    }
}

// What `call` gives when no allocation succeeds behind the first ones that are granted.
template <typename Call>
auto without_memory(Call call, int granted = 0) {
    utils_testing_fail_allocation(granted + 1, UTILS_TESTING_FROM_THEN_ON);
    auto result = call();
    utils_testing_fail_allocation(1, 0);
    return result;
}

// Calls of the system function go to `replacement`, which has no captures.
template <typename Replacement>
void replace_call(const char *function, Replacement replacement) {
    auto *own = reinterpret_cast<utils_testing_replacement *>(+replacement);
    if (utils_testing_replace_call(function, own) != 0)
        abort();
}

// Runs `body(0)` to `body(count - 1)`, each in a thread of its own, and waits for all.
template <typename Body>
void in_threads(int count, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([=, &body] { body(i); });
    for (std::thread &thread : threads)
        thread.join();
}

// Whether the programs run under an emulator, and its name as it gives it itself.
bool emulated();
std::string emulator();

// Whether the stand-in serves this platform function, and no product's library that was put before it.
bool is_stand_in(const char *function);

// `command` as it must be started here: behind the emulator's name when there is one.
std::string runnable(const std::string &command);

// From here on, `signal` does nothing but end the calls that it meets with EINTR.
void let_interrupt(int signal);

// Milliseconds on the monotonic clock.
int64_t monotonic_ms();

// True as soon as `condition` holds, false when it does not within `limit_ms`; polls each
// millisecond.
bool eventually(const std::function<bool()> &condition, int limit_ms = 10000);

}  // namespace support
