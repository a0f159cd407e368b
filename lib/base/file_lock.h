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

}  // namespace utils
