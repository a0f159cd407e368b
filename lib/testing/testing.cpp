// SPDX-License-Identifier: Apache-2.0
// The requests: what is asked of an interposed function, and the judgement over each call of it.
#include "utils/testing.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/memory_order.h"
#include "base/retry.h"
#include "taken.h"

#define EXPORTED __attribute__((visibility("default")))

extern "C" {
extern utils::Taken *const __start_utils_taken[] __attribute__((visibility("hidden")));
extern utils::Taken *const __stop_utils_taken[] __attribute__((visibility("hidden")));
extern utils::Next *const __start_utils_next[] __attribute__((visibility("hidden")));
extern utils::Next *const __stop_utils_next[] __attribute__((visibility("hidden")));
}

namespace utils {
namespace {

std::atomic<int> failures{0};
std::atomic<size_t> most_bytes{0};        // of one transfer; 0: no limit
std::atomic<const void *> only{nullptr};  // a mark of the one thread that is watched
thread_local bool finding = false;
thread_local bool passing = false;  // its address marks the thread

// dlsym() takes a lock that a signal handler or a forked child cannot wait for.
__attribute__((constructor)) void find_all() {
    for (Next *const *next = __start_utils_next; next != __stop_utils_next; ++next)
        (*next)->find();
}

Taken *named(const char *function) {
    for (Taken *const *taken = __start_utils_taken; taken != __stop_utils_taken; ++taken) {
        if (function != nullptr && strcmp((*taken)->name, function) == 0)
            return *taken;
    }
    errno = EINVAL;
    return nullptr;
}

}  // namespace

void *Next::find() {
    void *found = address.load(std::memory_order_acquire);
    if (found == nullptr) {
        KeptErrno kept;
        bool before = finding;
        finding = true;
        found = dlsym(RTLD_NEXT, symbol);
        finding = before;
        address.store(found, std::memory_order_release);
    }
    return found;
}

bool is_finding() {
    return finding;
}

bool is_watched() {
    const void *watched = only.load(kRelaxed);
    return !passing && (watched == nullptr || watched == &passing);
}

Verdict judge(Taken &taken) {
    if (!is_watched())
        return {0, nullptr};
    taken.calls.fetch_add(1, kRelaxed);
    if (int times = taken.times.load(std::memory_order_acquire); times != 0) {
        int behind = taken.turn.fetch_add(1, kRelaxed) + 1 - taken.nth;
        if (behind >= 0 && behind < times) {
            failures.fetch_add(1, kRelaxed);
            return {taken.error, nullptr};
        }
    }
    return {0, taken.instead.load(std::memory_order_acquire)};
}

Passing::Passing() : before_(passing) {
    passing = true;
}

Passing::~Passing() {
    passing = before_;
}

// A counter, an event or a packet is moved whole or not at all: only what is a stream is shortened.
size_t shortened(int descriptor, size_t size) {
    size_t limit = most_bytes.load(kRelaxed);
    if (limit == 0 || size <= limit || !is_watched())
        return size;
    KeptErrno kept;
    int type = SOCK_STREAM;
    struct stat status {};
    socklen_t length = sizeof type;
    Passing through;
    bool stream =
        fstat(descriptor, &status) == 0 && (status.st_mode & S_IFMT) != 0 &&
        (!S_ISSOCK(status.st_mode) ||
         (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM));
    return stream ? limit : size;
}

}  // namespace utils

using namespace utils;

EXPORTED int utils_testing_fail_call(const char *function, int nth, int error, int times) {
    Taken *taken = named(function);
    if (taken == nullptr || nth < 1 || error < 1 || times < 0)
        return minus_one(EINVAL);
    taken->times = 0;
    taken->nth = nth;
    taken->error = error;
    taken->turn = 0;
    if (times != 0)
        failures = 0;
    taken->times.store(times, std::memory_order_release);
    return 0;
}

EXPORTED int utils_testing_fail_allocation(int nth, int times) {
    return utils_testing_fail_call("malloc", nth, ENOMEM, times);
}

EXPORTED int utils_testing_failures(void) {
    return failures;
}

EXPORTED int utils_testing_replace_call(const char *function,
                                        utils_testing_replacement *replacement) {
    Taken *taken = named(function);
    if (taken == nullptr)
        return -1;
    taken->instead.store(replacement, std::memory_order_release);
    return 0;
}

EXPORTED int utils_testing_count_calls(const char *function) {
    const Taken *taken = named(function);
    return taken == nullptr ? -1 : taken->calls.load();
}

EXPORTED const char *utils_testing_function(int index) {
    return index >= 0 && index < __stop_utils_taken - __start_utils_taken
               ? __start_utils_taken[index]->name
               : nullptr;
}

EXPORTED void utils_testing_this_thread_only(int on) {
    only = on != 0 ? &passing : nullptr;
}

EXPORTED void utils_testing_short_io(size_t bytes) {
    most_bytes = bytes;
}

EXPORTED int utils_testing_open_descriptors(void) {
    Passing through;
    int folder = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return -1;
    // Without opendir(), which allocates. Each entry: inode, offset, its own length, type, name.
    alignas(8) char entries[2048];
    constexpr size_t kLengthAt = 16, kNameAt = 19;
    int count = -1;  // the folder's own
    long length = 0;
    while ((length = syscall(SYS_getdents64, folder, entries, sizeof entries)) > 0) {
        for (long at = 0; at < length;) {
            unsigned short step = 0;
            memcpy(&step, entries + at + kLengthAt, sizeof step);
            count += entries[at + static_cast<long>(kNameAt)] != '.';
            at += step;
        }
    }
    close(folder);
    return length == 0 ? count : -1;
}

EXPORTED void utils_testing_reset(void) {
    for (Taken *const *taken = __start_utils_taken; taken != __stop_utils_taken; ++taken) {
        (*taken)->times = 0;
        (*taken)->instead = nullptr;
        (*taken)->calls = 0;
    }
    failures = 0;
    most_bytes = 0;
    only = nullptr;
    reset_clocks();
}
