// SPDX-License-Identifier: Apache-2.0
// What a signal handler or a failed check says, and what a process says before it ends: it goes out
// within a time limit or not at all, and a broken pipe is only an error. Async-signal-safe
// (sigtimedwait() is a bare system call).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "base/held_signal.h"
#include "base/retry.h"
#include "base/text.h"

// The C library's name for this field is younger than the systems we run on.
#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace utils {

// Milliseconds; what one end of a process may take together stays below five seconds.
constexpr int kReportMs = 100;      // a report of a process that goes on
constexpr int kEndReportMs = 1000;  // the reports of one that a signal ends
constexpr int kExitMs = 2000;       // its buffered output
constexpr int kLastFlushMs = 1000;  // what the C library still writes in exit() or abort()
constexpr int kFatalMs = 3000;      // everything said before a core file

// A way of our own to the pipe or terminal behind `fd`, on which no write waits: the mode of `fd`
// itself belongs to other processes, too. -1 where there is none, or no need for one.
inline int opened_anew(int fd) {
    struct stat status {};
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_NONBLOCK) != 0 || fstat(fd, &status) != 0 ||
        !(S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)))
        return -1;
    SafeText path;
    path << "/proc/self/fd/" << fd;
    return open(path.text(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

// Writes what finds room until the monotonic millisecond `end` and drops the rest; false then, or
// when the descriptor fails.
inline bool write_until(int64_t end, int fd, const void *bytes, size_t size) {
    HeldSignal sigpipe(SIGPIPE);
    Descriptor own(opened_anew(fd));
    int to = own ? own.get() : fd;
    auto *from = static_cast<const char *>(bytes);
    while (size > 0) {
        int64_t left = end - monotonic_ms();
        pollfd room{to, POLLOUT, 0};
        int ready = poll(&room, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready < 0 && errno == EINTR)
            continue;
        // A pipe without reader raises no SIGPIPE when it is not written to.
        if (ready <= 0 || room.revents != POLLOUT)
            return false;
        ssize_t written = send(to, from, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (written < 0 && errno == ENOTSOCK)
            written = write(to, from, size);
        if (written < 0 && errno == EPIPE)
            sigpipe.raised();
        if (written < 0 && errno != EINTR && errno != EAGAIN)
            return false;
        if (written < 0)
            poll(nullptr, 0, 1);  // room, but not enough
        else
            from += written, size -= static_cast<size_t>(written);
    }
    return true;
}

inline std::atomic<void (*)()> timer_action{nullptr};
static_assert(std::atomic<void (*)()>::is_always_lock_free);

// Calls `action` on this thread after `ms`, and every `again_ms` if that is not 0, whatever the
// thread waits for then: an interrupted write() fails with EINTR. The timer is the thread's own,
// and SIGSYS the signal that no program waits for. For stop_timer(), or -1.
inline int start_timer(int64_t ms, int again_ms, void (*action)()) {
    timer_action.store(action);
    struct sigaction how {};
    how.sa_handler = [](int) {
        KeptErrno error;
        timer_action.load()();
    };
    sigaction(SIGSYS, &how, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGSYS);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_notify_thread_id = static_cast<pid_t>(syscall(SYS_gettid));
    event.sigev_signo = SIGSYS;
    // Seconds and nanoseconds as the system call has them: again, and first. 0 would be never.
    long when[4] = {again_ms / 1000, again_ms % 1000 * 1000000L, static_cast<long>(ms / 1000),
                    static_cast<long>(ms % 1000 * 1000000 + 1)};
    // Bare calls: timer_create() and timer_delete() are names of this library's own.
    int timer;
    if (syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer) != 0)
        return -1;
    syscall(SYS_timer_settime, timer, 0, when, nullptr);
    return timer;
}

inline void stop_timer(int timer) {
    syscall(SYS_timer_delete, timer);
}

// For a thread that is about to end the process: lets it say its last words for `ms`, then calls
// `end` on it. From here on a broken pipe is only an error to it.
inline void end_within(int ms, void (*end)()) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    start_timer(ms, 0, end);
}

// As abort(), but nothing is flushed: some C libraries do that there.
inline void abort_at_once() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGABRT);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(SIGABRT);
    signal(SIGABRT, SIG_DFL);
    raise(SIGABRT);
}

// abort() for a thread that still has something to say before.
inline void abort_within(int ms) {
    end_within(ms, abort_at_once);
}

}  // namespace utils
