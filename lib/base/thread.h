// SPDX-License-Identifier: Apache-2.0
// Locks. `Mutex` guards the library's own state and carries clang's thread-safety annotations;
// `RecordLock` holds the mutex of a public record, where the type is fixed by the interface.
// No cancellation point is reached while a MutexLock is held, unless the owner's header says so.
#pragma once

#include <pthread.h>

#ifdef __clang__
#define UTILS_TSA(x) __attribute__((x))
#else
#define UTILS_TSA(x)
#endif
#define UTILS_GUARDED_BY(mutex) UTILS_TSA(guarded_by(mutex))
#define UTILS_REQUIRES(mutex) UTILS_TSA(requires_capability(mutex))
#define UTILS_ACQUIRE(...) UTILS_TSA(acquire_capability(__VA_ARGS__))
#define UTILS_TRY_ACQUIRE(...) UTILS_TSA(try_acquire_capability(__VA_ARGS__))
#define UTILS_RELEASE(...) UTILS_TSA(release_capability(__VA_ARGS__))
#define UTILS_NO_THREAD_SAFETY_ANALYSIS UTILS_TSA(no_thread_safety_analysis)

namespace utils {

class UTILS_TSA(capability("mutex")) Mutex {
  public:
    constexpr Mutex() = default;
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;

    // The results are pthread's: 0 or an error number.
    int lock() UTILS_TRY_ACQUIRE(0) { return pthread_mutex_lock(&mutex_); }
    int unlock() UTILS_RELEASE() { return pthread_mutex_unlock(&mutex_); }
    pthread_mutex_t *native() { return &mutex_; }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Makes the mutex of a public record: of a POSIX type, and for one process or several, which hand it
// on when its holder dies, where the system can do that. 0, or an error number.
inline int init_mutex(pthread_mutex_t *mutex, int type = PTHREAD_MUTEX_DEFAULT,
                      bool shared = false) {
    if (type == PTHREAD_MUTEX_DEFAULT && !shared)
        return pthread_mutex_init(mutex, nullptr);
    pthread_mutexattr_t attributes;
    if (int error = pthread_mutexattr_init(&attributes); error != 0)
        return error;
    int error = pthread_mutexattr_settype(&attributes, type);
    if (shared) {
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    }
    if (error == 0)
        error = pthread_mutex_init(mutex, &attributes);
    if (error != 0 && shared) {
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_STALLED);
        error = pthread_mutex_init(mutex, &attributes);
    }
    pthread_mutexattr_destroy(&attributes);
    return error;
}

class UTILS_TSA(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex &mutex) UTILS_ACQUIRE(mutex) : mutex_(mutex) {
        pthread_mutex_lock(mutex_.native());
    }
    ~MutexLock() UTILS_RELEASE() { pthread_mutex_unlock(mutex_.native()); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

  private:
    Mutex &mutex_;
};

class RecordLock {
  public:
    explicit RecordLock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~RecordLock() { pthread_mutex_unlock(&mutex_); }
    RecordLock(const RecordLock &) = delete;
    RecordLock &operator=(const RecordLock &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

}  // namespace utils
