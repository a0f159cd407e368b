// SPDX-License-Identifier: Apache-2.0
// A signal that a write may raise, SIGPIPE or SIGXFSZ, held back on this thread: the write fails
// with its error and nothing more. Async-signal-safe (sigtimedwait() is a bare system call).
#pragma once

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "base/retry.h"

namespace utils {

// Takes away what a write of its own raised; a signal that was pending before stays pending.
class HeldSignal {
  public:
    explicit HeldSignal(int number) {
        sigemptyset(&held_);
        sigaddset(&held_, number);
        pthread_sigmask(SIG_BLOCK, &held_, &before_);
        sigset_t pending;
        sigpending(&pending);
        pending_before_ = sigismember(&pending, number) != 0;
    }
    ~HeldSignal() {
        KeptErrno kept;
        timespec at_once{};
        if (raised_ && !pending_before_)
            retry([&] { return sigtimedwait(&held_, nullptr, &at_once); });
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    HeldSignal(const HeldSignal &) = delete;
    HeldSignal &operator=(const HeldSignal &) = delete;

    void raised() { raised_ = true; }

  private:
    sigset_t held_;
    sigset_t before_;
    bool pending_before_;
    bool raised_ = false;
};

}  // namespace utils
