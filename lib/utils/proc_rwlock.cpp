// SPDX-License-Identifier: Apache-2.0
// Reader/writer lock between processes: an fcntl() lock on a whole file, shared by the threads of a
// process through a record in its memory. Only the owner of the read lock, or the writer, touches
// the file's lock. Locks: a record's l_mutex, and the process-wide mutex of the priority; the two
// are never held together. A call that waits for another process does so with l_mutex held.
#undef NDEBUG  // for __assert_fail, which reports a broken record in the standard way
#include "utils/proc_rwlock.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstddef>

#include "base/file_lock.h"
#include "base/last_words.h"
#include "base/memory_order.h"
#include "base/retry.h"
#include "base/thread.h"

static_assert(sizeof(void *) != 4 ||
              (offsetof(procrwlock_t, l_owner) == 8 && offsetof(procrwlock_t, l_readers) == 36));
static_assert(offsetof(procrwlock_t, l_fd) == 0 && offsetof(procrwlock_t, l_state) == 4 &&
              offsetof(procrwlock_t, l_lowered) == 6 && offsetof(procrwlock_t, l_owner) == 8);
static_assert(offsetof(procrwlock_t, l_rwaiting) == offsetof(procrwlock_t, l_readers) + 4 &&
              offsetof(procrwlock_t, l_wwaiting) == offsetof(procrwlock_t, l_readers) + 8 &&
              offsetof(procrwlock_t, l_wcond) > offsetof(procrwlock_t, l_rcond));

namespace utils {
namespace {

enum Wait { kTry = 0, kWait = 1 };

constexpr int kNoNice = -100;  // outside the range of nice values
const pthread_t kNobody = static_cast<pthread_t>(-1);

struct Priority {
    uint32_t holders = 0;
    int32_t saved_nice = kNoNice;
};
Mutex priority_mutex;
Priority prio UTILS_GUARDED_BY(priority_mutex);

// The saved nice value is 0 or below: it is never sampled anew, and holders need not be counted.
std::atomic<bool> nice_already{false};

// Enters the set of holders, at nice 0 from the first one on; errno stays when that succeeds. Both
// are out of the way of a process that needs neither.
__attribute__((cold, noinline)) int raise_nice() {
    KeptErrno error;
    MutexLock lock(priority_mutex);
    // Kept: a nice value of 0 or below is sampled once.
    if (prio.holders == 0 && prio.saved_nice == kNoNice) {
        errno = 0;
        prio.saved_nice = getpriority(PRIO_PROCESS, 0);
        if (prio.saved_nice == -1 && errno != 0) {
            error.renew();
            return -1;
        }
    }
    if (prio.saved_nice > 0)
        setpriority(PRIO_PROCESS, 0, 0);
    else
        nice_already.store(true, kRelaxed);
    ++prio.holders;
    return 0;
}

// Leaves it; the last one gets the old value back. errno stays when that succeeds.
__attribute__((cold, noinline)) int lower_nice() {
    KeptErrno error;
    MutexLock lock(priority_mutex);
    --prio.holders;
    if (prio.holders == 0 && prio.saved_nice > 0) {
        if (setpriority(PRIO_PROCESS, 0, prio.saved_nice) != 0) {
            error.renew();
            return -1;
        }
        prio.saved_nice = kNoNice;
    }
    return 0;
}

int raise_priority() {
    return nice_already.load(kRelaxed) ? 0 : raise_nice();
}

int lower_priority() {
    return nice_already.load(kRelaxed) ? 0 : lower_nice();
}

// The end of a failed lock call: errno keeps what the failure was.
int give_up() {
    KeptErrno error;
    lower_priority();
    return -1;
}

int file_lock(const procrwlock_t &lck, short type, Wait wait) {
    KeptErrno error;
    int result =
        retry([&] { return lock_file(lck.l_fd, type, wait == kWait ? F_SETLKW : F_SETLK); });
    if (result == -1)
        error.renew();
    return result;
}

// The end of a lock call that keeps the record whatever the file's lock says. A failed one gives
// the priority back itself; the mark keeps the unlock that follows from doing so again.
int keep_record(procrwlock_t &lck, int result) {
    lck.l_lowered = result != 0;
    return result;
}

void check_read_state(const procrwlock_t &lck, unsigned line, const char *function) {
    if (lck.l_state == PROCRWLOCK_READ)
        return;
    abort_within(kFatalMs);
    __assert_fail("lck->l_state == 1", "proc_rwlock", line, function);
}

// Takes the file's read lock for this process; the caller counts as a reader already.
int own_read_lock(procrwlock_t &lck, Wait wait) {
    lck.l_state = PROCRWLOCK_READ;
    lck.l_owner = pthread_self();
    return file_lock(lck, F_RDLCK, wait);
}

// The body of a read lock, with l_mutex held.
int read_locked(procrwlock_t &lck, Wait wait) {
    if (lck.l_state == PROCRWLOCK_FREE) {
        ++lck.l_readers;
        if (own_read_lock(lck, wait) == 0)
            return 0;
        lck.l_state = PROCRWLOCK_FREE;
        lck.l_owner = kNobody;
        --lck.l_readers;
        return -1;
    }
    if (lck.l_readers > 0) {
        check_read_state(lck, 195, "procrwlock_rdlock_internal");
        if (lck.l_wwaiting > 0 && wait == kTry)
            return -1;
        ++lck.l_readers;
        return 0;
    }
    if (wait == kTry)
        return -1;
    ++lck.l_rwaiting;
    while (lck.l_state == PROCRWLOCK_WRITE)
        pthread_cond_wait(&lck.l_rcond, &lck.l_mutex);
    --lck.l_rwaiting;
    ++lck.l_readers;
    // A failure here leaves state, owner and count as they are, as the header says.
    return lck.l_state == PROCRWLOCK_FREE ? keep_record(lck, own_read_lock(lck, wait)) : 0;
}

// The body of a write lock, with l_mutex held.
int write_locked(procrwlock_t &lck, Wait wait) {
    if (lck.l_readers > 0 || lck.l_state != PROCRWLOCK_FREE) {
        if (wait == kTry)
            return -1;
        if (lck.l_readers > 0)
            check_read_state(lck, 358, "procrwlock_wrlock_internal");
        ++lck.l_wwaiting;
        while (lck.l_state != PROCRWLOCK_FREE)
            pthread_cond_wait(&lck.l_wcond, &lck.l_mutex);
        --lck.l_wwaiting;
    }
    // Stays so when the file's lock fails, as the header says.
    lck.l_state = PROCRWLOCK_WRITE;
    return keep_record(lck, file_lock(lck, F_WRLCK, wait));
}

// A try-lock that is busy inside the process leaves errno as it was.
template <int (*body)(procrwlock_t &, Wait)>
int lock_record(procrwlock_t *lck, Wait wait) {
    if (lck == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (raise_priority() != 0)
        return -1;
    int result;
    {
        RecordLock lock(lck->l_mutex);
        result = body(*lck, wait);
    }
    return result == 0 ? 0 : give_up();
}

// The body of a read unlock, with l_mutex held.
int read_unlocked(procrwlock_t &lck) {
    bool owner = pthread_equal(lck.l_owner, pthread_self()) != 0;
    --lck.l_readers;
    if (!owner) {
        if (lck.l_readers == 0)
            pthread_cond_broadcast(&lck.l_rcond);
        return 0;
    }
    while (lck.l_readers > 0)
        pthread_cond_wait(&lck.l_rcond, &lck.l_mutex);
    lck.l_owner = kNobody;
    lck.l_state = PROCRWLOCK_FREE;
    if (lck.l_wwaiting > 0)
        pthread_cond_broadcast(&lck.l_wcond);
    return file_lock(lck, F_UNLCK, kWait);
}

// The body of a write unlock, with l_mutex held.
int write_unlocked(procrwlock_t &lck) {
    lck.l_state = PROCRWLOCK_FREE;
    int result = file_lock(lck, F_UNLCK, kWait);
    if (lck.l_rwaiting > 0)
        pthread_cond_broadcast(&lck.l_rcond);
    else if (lck.l_wwaiting > 0)
        pthread_cond_signal(&lck.l_wcond);
    return result;
}

// What both unlocks share: the record's checks, and the priority that the lock had raised.
template <int (*body)(procrwlock_t &)>
int unlock_record(procrwlock_t *lck, bool reading) {
    if (lck == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int result;
    bool raised;
    {
        RecordLock lock(lck->l_mutex);
        if (reading && lck->l_readers == 0) {
            errno = EPERM;
            return -1;
        }
        // Nobody's lock has raised nothing.
        raised = lck->l_state != PROCRWLOCK_FREE && lck->l_lowered == 0;
        if (lck->l_lowered != 0)
            lck->l_lowered = 0;
        result = body(*lck);
    }
    // The old priority comes back whatever `result` is.
    return raised && lower_priority() != 0 ? -1 : result;
}

}  // namespace
}  // namespace utils

using namespace utils;

int procrwlock_init(procrwlock_t *lck, int fd) {
    if (lck == nullptr || fd == -1) {
        errno = EINVAL;
        return -1;
    }
    lck->l_fd = fd;
    lck->l_state = PROCRWLOCK_FREE;
    lck->l_lowered = 0;
    lck->l_owner = kNobody;
    lck->l_readers = 0;
    lck->l_rwaiting = 0;
    lck->l_wwaiting = 0;
    int error = init_mutex(&lck->l_mutex);
    error = error != 0 ? error : pthread_cond_init(&lck->l_rcond, nullptr);
    error = error != 0 ? error : pthread_cond_init(&lck->l_wcond, nullptr);
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : 0;
}

int procrwlock_rdlock(procrwlock_t *lck) {
    return lock_record<read_locked>(lck, kWait);
}

int procrwlock_rdlock_trylock(procrwlock_t *lck) {
    return lock_record<read_locked>(lck, kTry);
}

int procrwlock_wrlock(procrwlock_t *lck) {
    return lock_record<write_locked>(lck, kWait);
}

int procrwlock_wrlock_trylock(procrwlock_t *lck) {
    return lock_record<write_locked>(lck, kTry);
}

int procrwlock_rdunlock(procrwlock_t *lck) {
    return unlock_record<read_unlocked>(lck, true);
}

int procrwlock_wrunlock(procrwlock_t *lck) {
    return unlock_record<write_unlocked>(lck, false);
}
