// Keeps a signal that a write may raise from this thread, and takes away what the write has raised;
// one that was pending before stays so. The write then fails with its error.
#pragma once

#include <signal.h>

#include <cerrno>
#include <ctime>

namespace utils {

class HeldSignal {
  public:
    explicit HeldSignal(int number) {
        sigemptyset(&held_);
        sigaddset(&held_, number);
        pthread_sigmask(SIG_BLOCK, &held_, &before_);
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        was_pending_ = sigismember(&pending, number) == 1;
    }
    ~HeldSignal() {
        int saved_errno = errno;
        timespec no_wait{};
        if (!was_pending_) {
            while (sigtimedwait(&held_, nullptr, &no_wait) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = saved_errno;
    }
    HeldSignal(const HeldSignal &) = delete;
    HeldSignal &operator=(const HeldSignal &) = delete;

  private:
    sigset_t held_;
    sigset_t before_;
    bool was_pending_;
};

}  // namespace utils
