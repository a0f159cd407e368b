// SPDX-License-Identifier: Apache-2.0
// Peer lookup through the kernel's tables, whole-file locks and pid files. No state, no locks.
#include "utils/ppname.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/file_lock.h"
#include "base/retry.h"
#include "base/trusted.h"
#include "base/write_all.h"

namespace utils {
namespace {

constexpr size_t kLinkPrefix = 8;  // "socket:["
constexpr ssize_t kShortestLink = 9;
constexpr int kEnoughConversions = 11;

// The local address field of a line of the TCP table, if the line is about `inode`.
bool local_address(const char *line, long inode, in_addr &address) {
    int slot, uid, timeout;
    char local[65], remote[65], rest[513];
    unsigned local_port, remote_port, state, timer;
    unsigned long tx_queue, rx_queue, expiry, retransmits;
    long found = -1;
    int conversions = sscanf(
        line, "%d: %64[0-9A-Fa-f]:%X %64[0-9A-Fa-f]:%X %X %lX:%lX %X:%lX %lX %d %d %ld %512s\n",
        &slot, local, &local_port, remote, &remote_port, &state, &tx_queue, &rx_queue, &timer,
        &expiry, &retransmits, &uid, &timeout, &found, rest);
    if (conversions < kEnoughConversions || found != inode)
        return false;
    unsigned word = 0;
    sscanf(local, "%X", &word);
    address.s_addr = word;
    return true;
}

}  // namespace
}  // namespace utils

using namespace utils;

long ppnameGetInode(int pid) {
    char path[512];
    char link[511];
    snprintf(path, sizeof path, "/proc/%d/fd/0", pid);
    ssize_t length = readlink(path, link, sizeof link);
    if (length < kShortestLink)
        return -1;
    link[length - 1] = '\0';
    return strtol(link + kLinkPrefix, nullptr, 0);
}

int ppnamePeerAddr(int pid, int size, char *buffer) {
    if (buffer == nullptr || size < 0)
        return -1;
    long inode = ppnameGetInode(pid);
    if (inode == -1)
        return -1;
    FILE *table = fopen("/proc/net/tcp", "re");
    if (table == nullptr)
        return -1;
    char line[8192];
    in_addr address{};
    bool found = false;
    if (fgets(line, sizeof line, table) != nullptr) {
        while (!found && fgets(line, sizeof line, table) != nullptr)
            found = local_address(line, inode, address);
    }
    fclose(table);
    char text[INET_ADDRSTRLEN];
    if (!found || inet_ntop(AF_INET, &address, text, sizeof text) == nullptr)
        return -1;
    strncpy(buffer, text, static_cast<size_t>(size));
    return 0;
}

int fileLock(int fd, int mode) {
    switch (mode) {
        case FILE_LOCK_READ_TRY:
            return lock_file(fd, F_RDLCK, F_SETLK);
        case FILE_LOCK_WRITE:
            return lock_file(fd, F_WRLCK, F_SETLKW);
        case FILE_LOCK_WRITE_TRY:
            return lock_file(fd, F_WRLCK, F_SETLK);
        default:
            return -1;
    }
}

int fileUnlock(int fd) {
    return lock_file(fd, F_UNLCK, F_SETLK);
}

int stor_pid(const char *name, int instance) {
    char path[PATH_MAX];
    int length =
        snprintf(path, sizeof path, PID_FILE_FORMAT, name != nullptr ? name : "", instance);
    Descriptor file;
    if (name == nullptr || length >= static_cast<int>(sizeof path))
        errno = name == nullptr ? EINVAL : ENAMETOOLONG;
    else
        file.reset(retry([&] {
            return open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
        }));
    if (!file || !has_one_name(file.get()) ||
        retry([&] { return ftruncate(file.get(), 0); }) != 0) {
        perror("opening the pid file");
        return -1;
    }
    char text[16];
    int size = snprintf(text, sizeof text, "%d\n", getpid());
    if (!write_all(file.get(), text, static_cast<size_t>(size))) {
        perror("write the pid");
        return -1;
    }
    return 0;
}
