// SPDX-License-Identifier: Apache-2.0
// Taking a daemon's name, with two daemons that start at once and strangers in mind.
#include "ipc_name.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/deadline.h"
#include "base/file_lock.h"
#include "base/trusted.h"
#include "ipc_packet.h"

namespace utils::ipc {
namespace {

constexpr int64_t kNameLimitMs = 20000;  // for another process that opens the same name
constexpr int kNamePollMs = 10;
constexpr int kBacklog = 128;

}  // namespace

NameLock::NameLock(const sockaddr_un &socket) {
    snprintf(path_, sizeof path_, "%s.lock", socket.sun_path);
}

NameLock::~NameLock() {
    if (file_)
        unlink(path_);
}

// Waits for a process of the same user that is opening the name, 20 seconds at most.
int NameLock::acquire() {
    if (!Descriptor(open_trusted_directory(AT_FDCWD, IPC_SOCKET_DIRECTORY, 0)))
        return -errno;
    for (int64_t end_ms = monotonic_ms() + kNameLimitMs;;) {
        int error = file_ ? 0 : open_file();
        if (error == 0 && lock_file(file_.get(), F_WRLCK, F_SETLK) == 0) {
            if (is_in_place())
                return 0;
            file_.reset();
            continue;
        }
        if (error == 0 && errno != EAGAIN && errno != EACCES)
            error = -errno;
        if (error == 0 && monotonic_ms() >= end_ms)
            error = -ETIMEDOUT;
        if (error != 0) {
            file_.reset();
            return error;
        }
        poll(nullptr, 0, kNamePollMs);
    }
}

// What another user has put in the file's place, to hold us up, is removed.
int NameLock::open_file() {
    int error = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        file_.reset(open(path_, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        struct stat status {};
        if (file_ && fstat(file_.get(), &status) == 0 && S_ISREG(status.st_mode) &&
            status.st_uid == geteuid() && (status.st_mode & 077) == 0)
            return 0;
        error = file_ ? EACCES : errno;
        file_.reset();
        if ((error != EACCES && error != ELOOP && error != ENXIO) || unlink(path_) != 0)
            break;
    }
    return -error;
}

bool NameLock::is_in_place() const {
    struct stat held {
    }, named{};
    return fstat(file_.get(), &held) == 0 && stat(path_, &named) == 0 &&
           held.st_ino == named.st_ino && held.st_dev == named.st_dev;
}

// Takes a dead daemon's name; a living one's, found by a connection, stays.
int listen_at(const sockaddr_un &path) {
    Descriptor fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The file takes the socket's mode, so that it is the owner's alone from the first moment.
    if (!fd || fchmod(fd.get(), 0600) != 0)
        return -errno;
    auto *name = reinterpret_cast<const sockaddr *>(&path);
    if (bind(fd.get(), name, sizeof path) != 0) {
        if (errno != EADDRINUSE)
            return -errno;
        Descriptor probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!probe)
            return -errno;
        if (connect(probe.get(), name, sizeof path) == 0 || errno != ECONNREFUSED)
            return -EADDRINUSE;
        unlink(path.sun_path);
        if (bind(fd.get(), name, sizeof path) != 0)
            return -errno;
    }
    if (listen(fd.get(), kBacklog) != 0) {
        int error = errno;
        unlink(path.sun_path);
        return -error;
    }
    return fd.release();
}

}  // namespace utils::ipc
