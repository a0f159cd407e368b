// SPDX-License-Identifier: Apache-2.0
// Waking a waiter after the lock is released, so that it does not run into the lock at once, and
// nobody when nobody waits. What a waiter got may be its sign to delete the record: so those who
// still signal are counted, and the record goes when they have finished.
//
// `Wakeups` has four 32-bit numbers: waiting, waiters that nobody has signalled; woken, those that
// somebody has; signalling, threads that signal beside the lock; maker, the process that made the
// record. The first two change under the lock.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "base/memory_order.h"

namespace utils {

// Waits once, `wait` being a wait of pthread's; returns what it does.
template <typename Wakeups, typename Wait>
int counted_wait(Wakeups &wakeups, Wait wait) {
    ++wakeups.waiting;
    int result = wait();
    --(wakeups.woken > 0 ? wakeups.woken : wakeups.waiting);
    return result;
}

// Releases the lock and wakes a waiter, if there is one that nobody has signalled yet.
template <typename Wakeups>
void unlock_and_wake(pthread_mutex_t &lock, pthread_cond_t &condition, Wakeups &wakeups) {
    if (wakeups.waiting == 0) {
        pthread_mutex_unlock(&lock);
        return;
    }
    --wakeups.waiting;
    ++wakeups.woken;
    std::atomic_ref<int32_t> signalling(wakeups.signalling);
    signalling.fetch_add(1, kRelaxed);
    pthread_mutex_unlock(&lock);
    pthread_cond_signal(&condition);
    signalling.fetch_sub(1, std::memory_order_release);
}

// Before the record goes: waits for those who signal, at most 100 ms and without the lock. In a
// child of the maker nobody is left who could finish.
template <typename Wakeups>
void await_signallers(Wakeups &wakeups) {
    constexpr int kPatience = 100;
    constexpr timespec kMillisecond = {0, 1000000};
    std::atomic_ref<int32_t> signalling(wakeups.signalling);
    if (signalling.load(std::memory_order_acquire) == 0 || getpid() != wakeups.maker)
        return;
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    for (int i = 0; i < kPatience && signalling.load(std::memory_order_acquire) > 0; ++i)
        nanosleep(&kMillisecond, nullptr);
    pthread_setcancelstate(state, nullptr);
}

}  // namespace utils
