// SPDX-License-Identifier: Apache-2.0
// Files in places that others can write. Whatever somebody else has put there, or can change, is
// refused with EPERM: another owner than root or this process's user, write permission for others,
// links, special files. In a sticky directory others can only add names.
#pragma once

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "base/descriptor.h"

namespace utils {

inline bool is_trusted(const struct stat &status) {
    bool open_to_others = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    bool sticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    return (status.st_uid == 0 || status.st_uid == geteuid()) && (!open_to_others || sticky);
}

// A descriptor of the directory for the ...at() calls and fchdir(), or -1. `flags` is 0, or
// O_NOFOLLOW for a name that others could have put there.
inline int open_trusted_directory(int at, const char *path, int flags) {
    Descriptor directory(openat(at, path, O_PATH | O_DIRECTORY | O_CLOEXEC | flags));
    struct stat status {};
    if (!directory || fstat(directory.get(), &status) != 0)
        return -1;
    if (is_trusted(status))
        return directory.release();
    errno = EPERM;
    return -1;
}

// Whether it is a file that goes by one name at most. Behind a second one may be another's file, and
// behind a pipe a reader who never comes.
inline bool has_one_name(int file) {
    struct stat status {};
    if (fstat(file, &status) != 0)
        return false;
    errno = EPERM;
    return S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

// A number that nobody can foretell, for names that nobody else has taken.
inline uint32_t unforeseen_number() {
    uint32_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof number))
        return number;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_nsec) * 2654435761U ^ static_cast<uint32_t>(getpid());
}

// A new file beside `path` that takes the place of the file there when all of it is written; until
// then, and when that fails, the old file stays. A refused old file refuses the new one.
class Replacement {
  public:
    Replacement(const char *path, mode_t mode) : path_(path) {
        struct stat old {};
        if (lstat(path, &old) == 0 &&
            (!S_ISREG(old.st_mode) || old.st_nlink != 1 || !is_trusted(old))) {
            errno = EPERM;
            return;
        }
        for (int tries = 0; !file_ && tries < kMostTries; ++tries) {
            snprintf(name_, sizeof name_, "%s.%08x", path, unforeseen_number());
            file_.reset(open(name_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
            if (!file_ && errno != EEXIST && errno != EINTR)
                return;
        }
        made_ = static_cast<bool>(file_);
    }
    ~Replacement() {
        if (made_)
            unlink(name_);
    }
    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;

    int get() const { return file_.get(); }
    explicit operator bool() const { return static_cast<bool>(file_); }
    bool commit() {
        // Some file systems tell only here that there is no room.
        if (close(file_.release()) != 0 || rename(name_, path_) != 0)
            return false;
        made_ = false;
        return true;
    }

  private:
    static constexpr int kMostTries = 100;
    const char *path_;
    char name_[256];
    Descriptor file_;
    bool made_ = false;
};

}  // namespace utils
