// SPDX-License-Identifier: Apache-2.0
// Writing whole texts to descriptors.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "base/retry.h"

namespace utils {

// Writes `size` bytes, going on after interruptions and short writes; false when that fails.
inline bool write_all(int fd, const void *bytes, size_t size) {
    auto *from = static_cast<const char *>(bytes);
    while (size > 0) {
        ssize_t written = retry([=] { return write(fd, from, size); });
        if (written <= 0)
            return false;
        from += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace utils
