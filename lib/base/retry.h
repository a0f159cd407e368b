// SPDX-License-Identifier: Apache-2.0
// Calls that a signal interrupts, and calls that leave errno as it was.
#pragma once

#include <sys/types.h>

#include <cerrno>

namespace utils {

inline bool has_failed(ssize_t result) {
    return result < 0;
}
inline bool has_failed(const void *result) {
    return result == nullptr;
}

// Makes a call again as long as a signal interrupts it: one that gives -1 or null, and errno.
template <typename Call>
auto retry(Call call) {
    for (;;) {
        auto result = call();
        if (!has_failed(result) || errno != EINTR)
            return result;
    }
}

// The same for a call that gives the error number itself.
template <typename Call>
int retry_error(Call call) {
    int error;
    do
        error = call();
    while (error == EINTR);
    return error;
}

// Puts errno back as it was before, or as it was when it was last renewed.
class KeptErrno {
  public:
    KeptErrno() = default;
    ~KeptErrno() { errno = kept_; }
    KeptErrno(const KeptErrno &) = delete;
    KeptErrno &operator=(const KeptErrno &) = delete;

    void renew() { kept_ = errno; }

  private:
    int kept_ = errno;
};

}  // namespace utils
