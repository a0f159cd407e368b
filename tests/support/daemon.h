// A daemon in a process of its own, and how to reach it.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>

#include "platform/ipc.h"
#include "support/support.h"
#include "utils/identity.h"

namespace support {

// Whether loops are to be cut down: each exchange costs much more here.
inline bool slow() {
#ifdef __SANITIZE_THREAD__
    return true;
#else
    return emulated();
#endif
}

inline ipc_address address_of(const char *name) {
    ipc_address address{myNode(), static_cast<uint16_t>(getMySwitch()), {}};
    snprintf(address.name, sizeof address.name, "%s", name);
    return address;
}

// Forks a daemon that is ready when the constructor returns: `body` registers handlers and may
// serve for itself; afterwards the process waits for requests. It dies with the object.
class Daemon {
  public:
    explicit Daemon(const char *name, const std::function<void()> &body) {
        int ready[2];
        if (pipe(ready) != 0)
            abort();
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            ipc_address own = address_of(name);
            body();
            int result = ipc_open(&own);
            if (result != 0 || write(ready[1], "r", 1) != 1)
                _exit(-result);
            close(ready[1]);
            for (;;)
                pause();
        }
        char byte;
        close(ready[1]);
        ready_ = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
    }
    ~Daemon() {
        if (pid_ > 0)
            kill(pid_, SIGKILL);
        ending();
    }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    bool ready() const { return ready_; }
    pid_t pid() const { return pid_; }
    // Waits for the process to end; its status as waitpid() has it.
    int ending() {
        if (pid_ > 0)
            waitpid(pid_, &status_, 0);
        pid_ = -1;
        return status_;
    }

  private:
    pid_t pid_ = -1;
    bool ready_ = false;
    int status_ = -1;
};

}  // namespace support
