// SPDX-License-Identifier: Apache-2.0
// How a daemon takes its name: the lock on it, and the socket that listens there.
#pragma once

#include <sys/un.h>

#include "base/descriptor.h"

namespace utils::ipc {

// The lock that one process holds while it takes a name, so that two daemons that start at once do
// not remove each other's socket. A file that nobody else can open, and that its holder removes: it
// counts as locked only while it still stands in its place.
class NameLock {
  public:
    explicit NameLock(const sockaddr_un &socket);
    ~NameLock();
    NameLock(const NameLock &) = delete;
    NameLock &operator=(const NameLock &) = delete;

    // Waits for the lock. Returns 0, or a negated errno value.
    int acquire();

  private:
    int open_file();
    bool is_in_place() const;

    char path_[sizeof sockaddr_un::sun_path + 8];
    Descriptor file_;
};

// A listening socket at `path`, in the place of a dead daemon's,
// or a negated errno value. The name is locked.
int listen_at(const sockaddr_un &path);

}  // namespace utils::ipc
