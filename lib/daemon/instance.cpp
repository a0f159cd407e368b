// SPDX-License-Identifier: Apache-2.0
// One instance of a daemon: its lock, its pid file and the name of its socket. The lock is an
// fcntl() lock, so it ends with the process and a forked child has no part in it. It has a file of
// its own that stays: closing any descriptor of the pid file would drop a lock there, and two
// processes that lock a file and its successor are both alone.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/file_lock.h"
#include "base/retry.h"
#include "base/trusted.h"
#include "state.h"
#include "utils/identity.h"
#include "utils/ppname.h"

namespace utils::service {
namespace {

constexpr int kBacklog = 64;
using Path = char[128];

Path pid_path, socket_path, request_path;
std::atomic<pid_t> owner{0};
// Words, since some processors exchange nothing smaller.
std::atomic<int> has_pid_file{0}, has_socket{0}, has_requests{0};

void name_file(Path &path, const char *kind) {
    snprintf(path, sizeof path, DAEMON_FILE_FORMAT, name, getMySwitch(), kind);
}

// The file, open and nobody else's: who can open it can hold its lock for ever.
int open_own_file(const char *path) {
    if (!Descriptor(open_trusted_directory(AT_FDCWD, DAEMON_DIRECTORY, 0)))
        return -1;
    Descriptor file(open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0)
        return -1;
    errno = EPERM;
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || status.st_nlink != 1 ||
        ((status.st_mode & 077) != 0 && fchmod(file.get(), 0600) != 0))
        return -1;
    return file.release();
}

int refuse_second(int lock) {
    if (pid_t holder = lock_holder(lock); holder > 0)
        fprintf(stderr, "%s: cannot start: process %d serves switch %d already\n", name,
                static_cast<int>(holder), getMySwitch());
    else
        fprintf(stderr, "%s: cannot start: another process serves switch %d already\n", name,
                getMySwitch());
    return DAEMON_REFUSED;
}

// With the longest name, switch and kind.
static_assert(sizeof DAEMON_FILE_FORMAT + DAEMON_NAME_MAX + 3 + 4 <= sizeof(sockaddr_un::sun_path));

sockaddr_un socket_address() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, socket_path, strlen(socket_path));
    return address;
}

// A daemon that is written without the companion holds no lock, but may answer.
bool is_answered() {
    sockaddr_un address = socket_address();
    Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return probe &&
           (connect(probe.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ||
            errno == EAGAIN);
}

}  // namespace

int lock_instance() {
    Path path;
    name_file(path, "lock");
    Descriptor lock(open_own_file(path));
    if (!lock)
        return daemon_refuse(path);
    if (lock_file(lock.get(), F_WRLCK, F_SETLK) != 0)
        return errno == EAGAIN || errno == EACCES ? refuse_second(lock.get()) : daemon_refuse(path);
    snprintf(pid_path, sizeof pid_path, PID_FILE_FORMAT, name, getMySwitch());
    name_file(socket_path, "cmd");
    if (is_answered()) {
        errno = EADDRINUSE;
        return daemon_refuse(socket_path);
    }
    lock.release();  // for life
    owner.store(getpid());
    atexit(remove_files);
    return 0;
}

bool write_pid_file() {
    has_pid_file.store(stor_pid(name, getMySwitch()) == 0 ? 1 : 0);
    return has_pid_file.load() != 0;
}

int open_command_socket() {
    if (!Descriptor(open_trusted_directory(AT_FDCWD, DAEMON_DIRECTORY, 0)))
        return -1;
    sockaddr_un address = socket_address();
    Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The file takes the socket's mode, so that it is the owner's alone from the first moment.
    if (!listener || fchmod(listener.get(), 0600) != 0)
        return -1;
    // The lock is ours, so what stands there is a dead instance's.
    unlink(socket_path);
    if (bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        return -1;
    has_socket.store(1);
    struct stat status {};
    if (lstat(socket_path, &status) != 0 || status.st_uid != geteuid() ||
        ((status.st_mode & 077) != 0 && chmod(socket_path, 0600) != 0) ||
        listen(listener.get(), kBacklog) != 0)
        return -1;
    return listener.release();
}

void remove_command_socket() {
    if (getpid() == owner.load() && has_socket.exchange(0) != 0)
        unlink(socket_path);
}

void note_request_socket(const char *path) {
    snprintf(request_path, sizeof request_path, "%s", path != nullptr ? path : "");
    has_requests.store(path != nullptr ? 1 : 0);
}

void remove_files() {
    if (getpid() != owner.load())
        return;
    KeptErrno error;
    remove_command_socket();
    if (has_requests.exchange(0) != 0)
        unlink(request_path);
    // In a directory that is not this user's, an empty file is what says that nobody runs.
    if (has_pid_file.exchange(0) != 0 && unlink(pid_path) != 0) [[maybe_unused]]
        int result = truncate(pid_path, 0);
}

}  // namespace utils::service

int daemon_own_file(const char *kind) {
    utils::service::Path path;
    utils::service::name_file(path, kind);
    return utils::service::open_own_file(path);
}
