// SPDX-License-Identifier: Apache-2.0
// The record lock of a whole file (POSIX fcntl()): a process has it, not a descriptor.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace utils {

// Takes it for reading (F_RDLCK) or writing (F_WRLCK), or gives it back (F_UNLCK); `command` is
// F_SETLKW to wait, F_SETLK not to. 0, or -1 and errno.
inline int lock_file(int fd, short type, int command) {
    struct flock whole {};
    whole.l_type = type;
    whole.l_whence = SEEK_SET;
    return fcntl(fd, command, &whole);
}

// The process that keeps this one from locking the file for writing; 0 when none does, or nobody can tell.
inline pid_t lock_holder(int fd) {
    struct flock holder {};
    holder.l_type = F_WRLCK;
    holder.l_whence = SEEK_SET;
    if (fcntl(fd, F_GETLK, &holder) != 0 || holder.l_type == F_UNLCK || holder.l_pid <= 0)
        return 0;
    return holder.l_pid;
}

}  // namespace utils
