/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * Failing calls, shortened transfers and set clocks for tests.
 *
 * A program linked with libutils-testing meets on purpose what is rare elsewhere: memory runs out
 * at the third allocation, a write takes one byte, fcntl() is interrupted, a day passes at once.
 * The library's definitions of malloc(), read(), clock_gettime() and so on stand before the C
 * library's, for the program and every shared library in it; each does what this header says and
 * passes everything else on. Until it is asked for something it changes nothing but this: realloc()
 * always gives another block, and fills what is new in it with the byte 0x5A.
 *
 * A function is named as in its manual page. One name stands for all its forms: "open" for open64()
 * and __open_2(), "fcntl" for __fcntl_time64(), "poll" for __poll_chk(). What the C library calls
 * inside itself (the open() behind fopen(), say) is not seen, except for memory.
 *
 * The definition that is found first wins: name this library before libutils and its platform, as
 * `pkg-config --libs libutils-testing` does, or load it by LD_PRELOAD. Statically linked programs
 * and direct system calls are out of reach. A sanitizer's own definitions stand before all others
 * and call these in their turn, except for memory: beside the address and the thread sanitizer a
 * program says #UTILS_TESTING_HEAP in one of its source files. Live blocks are counted without that,
 * too. The thread sanitizer keeps fstat() and the calls of condition variables for itself, and does
 * not count aligned blocks. Both end the process when memory fails where a thread starts:
 * utils_testing_this_thread_only() helps.
 *
 * Threads: every call here may be made from any thread, and takes effect at once in all; what is
 * asked of one function at the same time by several threads is undefined. A forked child goes on
 * with its parent's settings. The interposed functions may be called where the C library's may,
 * from signal handlers, too.
 */
#ifndef UTILS_TESTING_H
#define UTILS_TESTING_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>
#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @p times of a call that fails once. */
#define UTILS_TESTING_ONCE 1
/** @p times of a call that fails from then on, until it is set anew. */
#define UTILS_TESTING_FROM_THEN_ON INT32_MAX

/**
 * Lets allocations fail with ENOMEM: of all calls from here on of malloc(), calloc(), realloc(),
 * reallocarray(), aligned_alloc(), memalign() and posix_memalign() those from the @p nth one (1:
 * the next),
 * @p times in a row; 0 @p times: none. Starts utils_testing_failures() at 0, unless @p times is 0.
 *
 * @return 0, or -1 with errno EINVAL when @p nth is below 1 or @p times below 0
 */
int utils_testing_fail_allocation(int nth, int times);

/**
 * Lets a system function fail: of all its calls from here on those from the @p nth one (1: the
 * next), @p times in a row; 0 @p times: none. A call that fails does nothing, but close(), fclose()
 * and pclose() end what they are given all the same. Each function has a setting of its own. Starts
 * utils_testing_failures() at 0, unless @p times is 0.
 *
 * @param function its name, as utils_testing_function() lists them
 * @param nth      the first call that fails
 * @param error    the value of errno, or what the call returns when it is one that returns its
 * error (pthread_create(), posix_fallocate())
 * @param times    how many calls fail
 * @return 0, or -1 with errno EINVAL for a number out of range, an @p error below 1 or an unknown
 * name
 */
int utils_testing_fail_call(const char *function, int nth, int error, int times);

/** @return how many calls and allocations were made to fail since the last one was asked for */
int utils_testing_failures(void);

/** A function of any type; the caller of utils_testing_replace_call() converts its own to it. */
typedef void utils_testing_replacement(void);

/**
 * Sends all calls of a system function to one of the program's own.
 *
 * @param function    its name, as utils_testing_function() lists them
 * @param replacement takes and returns what the function does in the sources that call it, except
 * that an optional argument (of open(), fcntl(), ioctl()) is an ordinary one as wide as a pointer;
 *                    null: the function itself again. Every call that it makes is passed on, also
 * one of
 *                    @p function.
 * @return 0, or -1 with errno EINVAL for an unknown name
 */
int utils_testing_replace_call(const char *function, utils_testing_replacement *replacement);

/** @return how often @p function was called since the start or the last utils_testing_reset(), or
 * -1 for an unknown name; "malloc" stands for all allocations */
int utils_testing_count_calls(const char *function);

/** @return the name of the function @p index, counted from 0, or null behind the last one */
const char *utils_testing_function(int index);

/**
 * Limits what fails, is replaced, shortened or counted to the calling thread.
 *
 * @param on 0: all threads again
 */
void utils_testing_this_thread_only(int on);

/**
 * Lets read(), write(), pread(), pwrite(), send() and recv() move at most @p bytes in one call, as
 * they may at any time: on files, pipes, terminals and stream sockets. Packets, and recv() with
 * MSG_WAITALL, stay whole. 0: no limit.
 */
void utils_testing_short_io(size_t bytes);

/**
 * @name Clocks
 * A set clock is seen by clock_gettime(), time() and gettimeofday(); waits and time-outs go on by
 * the real one, so that a deadline computed from a set clock is off by as much. CLOCK_REALTIME and
 * CLOCK_MONOTONIC stand for their coarse and raw kin, CLOCK_MONOTONIC for CLOCK_BOOTTIME, too, and
 * the stand-in's time base follows it where the processor has none of its own. Each call gives 0,
 * or -1 with errno EINVAL for another clock.
 * @{
 */
/** Stops @p clock at @p ns, nanoseconds since its beginning. */
int utils_testing_set_clock(clockid_t clock, int64_t ns);
/** Moves @p clock on by @p ns, or back when that is negative: a stopped one stays stopped. */
int utils_testing_advance_clock(clockid_t clock, int64_t ns);
/** Lets every look at @p clock move it on by @p ns, from the second one on; 0: none any more. */
int utils_testing_step_clock(clockid_t clock, int64_t ns);
/** Lets @p clock show its own time again. */
int utils_testing_release_clock(clockid_t clock);
/** @} */

/**
 * Stops the time base, timebase_read(), at @p ticks.
 *
 * @return 0, or -1 with errno ENOTSUP when another definition of timebase_read() stands before this
 * library's, which is so when the program names libutils-platform first or defines it itself
 */
int utils_testing_set_ticks(uint64_t ticks);

/** @return the blocks of memory that are allocated at this moment, by all threads; compare two
 * results */
int utils_testing_live_blocks(void);

/** @return the open descriptors of the process, or -1 when /proc cannot be read (see errno) */
int utils_testing_open_descriptors(void);

/** Takes back everything that was asked for, and starts all counts of calls and failures at 0. */
void utils_testing_reset(void);

/** malloc(), or a failure; for #UTILS_TESTING_HEAP, with @p size in bytes. */
void *utils_testing_malloc(size_t size);
/** calloc(), or a failure; for #UTILS_TESTING_HEAP, with @p count elements of @p size bytes. */
void *utils_testing_calloc(size_t count, size_t size);
/** realloc(), or a failure; for #UTILS_TESTING_HEAP, with a @p block and its new @p size in bytes. */
void *utils_testing_realloc(void *block, size_t size);

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UTILS_TESTING_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define UTILS_TESTING_SANITIZED 1
#endif
#endif

/**
 * Definitions of malloc(), calloc() and realloc() that can fail, for one source file of a program
 * built with the address or the thread sanitizer, whose shared runtime it needs; nothing elsewhere.
 * It stands outside of every function and namespace, after <stdlib.h>.
 */
#ifdef UTILS_TESTING_SANITIZED
#ifdef __cplusplus
#define UTILS_TESTING_NOEXCEPT noexcept
#else
#define UTILS_TESTING_NOEXCEPT
#endif
#define UTILS_TESTING_OWN __attribute__((no_sanitize("thread")))
#define UTILS_TESTING_HEAP                                                             \
    UTILS_BEGIN_DECLS                                                                  \
    UTILS_TESTING_OWN void *malloc(size_t size) UTILS_TESTING_NOEXCEPT {               \
        return utils_testing_malloc(size);                                             \
    }                                                                                  \
    UTILS_TESTING_OWN void *calloc(size_t count, size_t size) UTILS_TESTING_NOEXCEPT { \
        return utils_testing_calloc(count, size);                                      \
    }                                                                                  \
    UTILS_TESTING_OWN void *realloc(void *block, size_t size) UTILS_TESTING_NOEXCEPT { \
        return utils_testing_realloc(block, size);                                     \
    }                                                                                  \
    UTILS_END_DECLS
#else
#define UTILS_TESTING_HEAP
#endif

UTILS_END_DECLS

#endif
