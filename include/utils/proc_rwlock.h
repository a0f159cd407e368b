/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file proc_rwlock.h
 * @brief Reader/writer lock between the threads of several processes, over a file they all open.
 *
 * Between processes it is an fcntl() record lock on the whole file; inside a process a record in
 * the process's own memory lets reader threads share that one lock and queues threads. The system
 * frees the lock of a process that dies. Who creates the file, and where, is the callers' business.
 *
 * While a process holds or waits for any such lock it runs at nice 0 if it was at a lower priority;
 * the old value comes back with its last release. On Linux the nice value belongs to a thread: the
 * calling ones are changed, only the one that releases last gets its old value back, and the
 * others, and a child made by fork() meanwhile, stay at nice 0. An ordinary user may not raise it;
 * that is ignored.
 *
 * Readers come before writers: while readers hold the lock, more may join, and after a write
 * waiting readers go first; readers of one process that overlap without a gap keep the writers of
 * every process waiting, and their owner in its unlock, without end. The thread that took the
 * file's lock for a process is its owner and, on unlocking, waits for the process's other readers.
 * A thread that holds the lock must not take it again. A call that waits for another process keeps
 * the record busy: other threads of the process, their try-locks included, wait behind it.
 *
 * A waiting call may fail with EDEADLK: the system looks for circles of processes, not of threads,
 * so it may see one (fcntl(), POSIX.1) where two processes wait for two locks in different threads
 * and no deadlock exists. Release what the thread holds and try again.
 *
 * Beware: the system drops an fcntl() lock when the process closes any descriptor of the file. Open
 * the file once, and never elsewhere in the process.
 *
 * Threads: any, but one that may be cancelled must not use these calls. A child made by fork()
 * holds none of its parent's locks and must not use records that were in use then.
 */
#ifndef UTILS_PROC_RWLOCK_H
#define UTILS_PROC_RWLOCK_H

#include <pthread.h>
#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name States of a record
 *  @{ */
#define PROCRWLOCK_FREE 0  /**< not held by this process */
#define PROCRWLOCK_READ 1  /**< read-locked by this process */
#define PROCRWLOCK_WRITE 2 /**< write-locked by this process */
/** @} */

/** One lock in one process; belongs to the caller, is normally static, and must not move. */
typedef struct procrwlock {
    int32_t l_fd;            /**< the lock file, open for reading and writing */
    uint16_t l_state;        /**< PROCRWLOCK_... */
    uint16_t l_lowered;      /**< 1 after a failed call that kept the record; the library's own */
    pthread_t l_owner;       /**< thread that took the file's read lock, or (pthread_t)-1 */
    pthread_mutex_t l_mutex; /**< guards the record */
    uint32_t l_readers;      /**< threads of this process that hold the read lock */
    uint32_t l_rwaiting;     /**< threads that wait to read */
    uint32_t l_wwaiting;     /**< threads that wait to write */
    pthread_cond_t l_rcond;  /**< readers wait here, and the owner for the other readers */
    pthread_cond_t l_wcond;  /**< writers wait here */
} procrwlock_t;

/**
 * Prepares a record.
 * @param lck the record
 * @param fd  the lock file, open for reading and writing; stays the caller's
 * @return 0, or -1 with errno: EINVAL when @p lck is null or @p fd is -1, else why a mutex or
 *         condition cannot be made
 */
int procrwlock_init(procrwlock_t *lck, int fd);

/**
 * Waits for the lock and takes it for reading.
 * @return 0, or -1 with errno from fcntl() or getpriority(). When the file lock fails after a wait
 *         for a writer of this process, the record stays read-locked: unlock it before going on.
 */
int procrwlock_rdlock(procrwlock_t *lck);

/**
 * Takes the lock for reading if that needs no wait; gives way to writers that wait in this process.
 * @return 0, or -1: another process writes (errno from fcntl()), this process is writing, or a
 *         writer waits (errno stays as it was)
 */
int procrwlock_rdlock_trylock(procrwlock_t *lck);

/**
 * Waits for the lock and takes it for writing.
 * @return 0, or -1 with errno from fcntl() or getpriority(); see procrwlock_wrlock_trylock()
 */
int procrwlock_wrlock(procrwlock_t *lck);

/**
 * Takes the lock for writing if that needs no wait.
 * @return 0, or -1: this process holds the lock (errno stays as it was; nothing changed), or
 * another process does (errno from fcntl(): EAGAIN or EACCES). In that second case the record stays
 * in PROCRWLOCK_WRITE: call procrwlock_wrunlock() to free it. Set errno to 0 before the call to
 * tell the two apart.
 */
int procrwlock_wrlock_trylock(procrwlock_t *lck);

/**
 * Ends this thread's reading; the owner waits for the other readers of the process.
 * @return 0, or -1 with errno when the file's lock or the old priority cannot be given back; the
 *         record is unlocked then, too
 */
int procrwlock_rdunlock(procrwlock_t *lck);

/** Ends the writing. @return as procrwlock_rdunlock() */
int procrwlock_wrunlock(procrwlock_t *lck);

UTILS_END_DECLS

#endif
