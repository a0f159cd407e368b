// SPDX-License-Identifier: Apache-2.0
// The pool of kept connections. `pool_mutex` guards it, and that no other thread's descriptor escapes the
// child of a fork; a line in use belongs to its owner. A program may close descriptors that it does
// not know, or put others in their place: a kept one is used
// and closed only while it is still the same socket.
#include "ipc_kept.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/deadline.h"
#include "base/thread.h"
#include "ipc_packet.h"

namespace utils::ipc {
namespace {

constexpr int kLines = 16;  // half of what a daemon takes: no process fills one by being idle

Mutex pool_mutex;
Line lines[kLines] UTILS_GUARDED_BY(pool_mutex);
pthread_once_t prepared = PTHREAD_ONCE_INIT;
pthread_key_t thread_end UTILS_GUARDED_BY(pool_mutex);  // set in threads that have lines
bool usable UTILS_GUARDED_BY(pool_mutex) = false;

bool is_same_socket(const Line &line) {
    struct stat now {};
    return fstat(line.fd, &now) == 0 && now.st_ino == line.inode && now.st_dev == line.device;
}

// Closes without being a place where the thread may be cancelled.
void close_quietly(int fd) {
    int state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    close(fd);
    pthread_setcancelstate(state, nullptr);
}

void free_line(Line &line) {
    if (line.fd >= 0 && is_same_socket(line))
        close_quietly(line.fd);
    line = Line{};
}

template <typename Condition>
void free_lines(Condition condition) UTILS_REQUIRES(pool_mutex) {
    for (Line &line : lines) {
        if (line.pooled && condition(line))
            free_line(line);
    }
}

void before_fork() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    pool_mutex.lock();
}
void after_fork() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    pool_mutex.unlock();
}
void after_fork_in_child() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    free_lines([](const Line &) { return true; });
    pool_mutex.unlock();
}

void on_thread_end(void *) {
    MutexLock lock(pool_mutex);
    free_lines([](const Line &line) { return pthread_equal(line.owner, pthread_self()) != 0; });
}

void prepare() {
    bool fork_watched = pthread_atfork(before_fork, after_fork, after_fork_in_child) == 0;
    MutexLock lock(pool_mutex);
    usable = fork_watched && pthread_key_create(&thread_end, on_thread_end) == 0;
}

// A free entry, for which the connection that has been idle longest may have to go; null when every
// one is in use.
Line *free_entry() UTILS_REQUIRES(pool_mutex) {
    Line *oldest = nullptr;
    for (Line &line : lines) {
        if (!line.pooled)
            return &line;
        if (!line.busy && (oldest == nullptr || line.last_ms < oldest->last_ms))
            oldest = &line;
    }
    if (oldest != nullptr)
        free_line(*oldest);
    return oldest;
}

// A socket in no standard stream's place, where output meant for the stream would go to a daemon.
int open_socket() {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0 || fd > STDERR_FILENO)
        return fd < 0 ? -errno : fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int error = errno;
    close_quietly(fd);
    return moved < 0 ? -error : moved;
}

__attribute__((destructor)) void end_idle_lines() {
    MutexLock lock(pool_mutex);
    free_lines([](const Line &line) { return !line.busy; });
    if (usable)
        pthread_key_delete(thread_end);
}

}  // namespace

// This thread's connection to the daemon, when it is still to the same socket and by the same user.
Line *find_line(const ipc_address &address, int64_t now_ms) {
    Line *found = nullptr;
    MutexLock lock(pool_mutex);
    for (Line &line : lines) {
        if (!line.pooled || line.busy)
            continue;
        if (now_ms - line.last_ms >= kIdleLimitMs)
            free_line(line);
        else if (pthread_equal(line.owner, pthread_self()) != 0 &&
                 line.address.node == address.node && line.address.switch_no == address.switch_no &&
                 strncmp(line.address.name, address.name, IPC_NAME_SIZE) == 0)
            found = &line;
    }
    if (found != nullptr && (found->user != geteuid() || !is_same_socket(*found))) {
        free_line(*found);
        return nullptr;
    }
    if (found != nullptr)
        found->busy = true;
    return found;
}

// A new connection's entry in the pool, or `spare` when the pool is of no use to it.
Line &new_line(const ipc_address &address, Line &spare) {
    pthread_once(&prepared, prepare);
    MutexLock lock(pool_mutex);
    spare.fd = open_socket();
    if (spare.fd == -EMFILE || spare.fd == -ENFILE) {
        free_lines([](const Line &line) { return !line.busy; });
        spare.fd = open_socket();
    }
    struct stat status {};
    if (spare.fd < 0 || fstat(spare.fd, &status) != 0)
        return spare;
    spare.device = status.st_dev;
    spare.inode = status.st_ino;
    Line *entry = usable && pthread_setspecific(thread_end, lines) == 0 ? free_entry() : nullptr;
    if (entry == nullptr)
        return spare;
    spare.address = address;
    spare.owner = pthread_self();
    spare.user = geteuid();
    spare.pooled = spare.busy = true;
    *entry = spare;
    return *entry;
}

void keep_line(Line &line) {
    if (!line.pooled)
        return end_line(line);
    int64_t now_ms = monotonic_ms();
    MutexLock lock(pool_mutex);
    line.last_ms = now_ms;
    line.busy = false;
}

void end_line(Line &line) {
    MutexLock lock(pool_mutex);
    free_line(line);
}

}  // namespace utils::ipc
