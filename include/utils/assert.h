/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file assert.h
 * @brief Consistency checks that report to the RAS event log and the system console.
 *
 * An ASSERT is fatal: after its report the process writes through a null pointer, so that the
 * kernel ends it with SIGSEGV and leaves a core file (see signals.h for where). A VERIFY reports
 * and lets the caller recover. Programs use the macros QEL_ASSERT() and QEL_VERIFY(); the functions
 * beneath them are for checks that carry a source place of their own.
 *
 * Two switch files, read again at every failure, change what a failed check does. A switch is on
 * when its file holds exactly "on" and a newline.
 *
 * | asserts suppressed | panic suppressed | failed ASSERT                 | failed VERIFY       |
 * |--------------------|------------------|-------------------------------|---------------------|
 * | no                 | no               | event, console, crash         | event, console      |
 * | no                 | yes              | event, console, returns       | event, console      |
 * | yes                | no               | event, console, crash         | event only          |
 * | yes                | yes              | event only, returns           | event only          |
 *
 * A crash comes within five seconds, whatever console, event log and standard output wait for; what
 * finds no room is lost.
 *
 * Threads: any thread may fail a check at any time. No lock is taken; the text is built on the
 * stack of the calling thread. errno is kept. (The first backtrace of a process makes the C library
 * load its unwinder.) Do not fail checks in signal handlers.
 */
#ifndef UTILS_ASSERT_H
#define UTILS_ASSERT_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name Switch files
 *  @{ */
/** on: no console reports, but before a crash */
#define QEL_SUPPRESS_ASSERTS_FILE "/etc/config/suppress_asserts"
/** on: a failed ASSERT returns */
#define QEL_SUPPRESS_PANIC_FILE "/etc/config/suppress_panic_mode"
/** @} */

/** @name Fields of the info word of do_assert()
 *  @{ */
#define QEL_CHECK_ASSERT 0x80000000u    /**< kind: fatal; without this bit the check is a VERIFY */
#define QEL_CHECK_VERIFY 0x40000000u    /**< set by the VERIFY wrappers; never read */
#define QEL_CHECK_COUNT_SHIFT 24        /**< position of the number of values (4 bits) */
#define QEL_CHECK_COUNT_MAX 10          /**< most values; a larger number counts as 0 */
#define QEL_CHECK_LINE_MASK 0x00FFFFFFu /**< source line of the check */
/** @} */

/**
 * Reports a failed check: the event, unless suppressed the console report with a call backtrace,
 * and for an ASSERT the crash. Texts longer than 255 characters are cut.
 * @param expr text of the failed expression; null reads "unavailable(null pointer)"
 * @param file name of the caller's source file; null likewise
 * @param info kind, number of values and source line, see QEL_CHECK_ASSERT and the fields beside it
 * @param ...  as many unsigned 32-bit values as @p info says, shown with the report
 * @return 0; never for an ASSERT unless panic is suppressed
 */
int do_assert(const char *expr, const char *file, unsigned info, ...);

/** @name Checks with a fixed number of values
 *  Each reports that @p expr failed in @p file, with its N values a1 to aN. The report shows the
 *  wrapper's own source line, not the caller's @p line. The dbg_assert family is fatal and returns
 * 1 when panic is suppressed; the dbg_verify family returns 0. @{ */
int dbg_assert0(const char *expr, const char *file,
                unsigned line); /**< ASSERT without values. @return 1 */
/** ASSERT with 1 value. @return 1 */
int dbg_assert1(const char *expr, const char *file, unsigned line, unsigned a1);
/** ASSERT with 2 values. @return 1 */
int dbg_assert2(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2);
/** ASSERT with 3 values. @return 1 */
int dbg_assert3(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3);
/** ASSERT with 4 values. @return 1 */
int dbg_assert4(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4);
/** ASSERT with 5 values. @return 1 */
int dbg_assert5(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5);
/** ASSERT with 6 values. @return 1 */
int dbg_assert6(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5, unsigned a6);
/** ASSERT with 7 values. @return 1 */
int dbg_assert7(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5, unsigned a6, unsigned a7);
/** ASSERT with 8 values. @return 1 */
int dbg_assert8(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5, unsigned a6, unsigned a7, unsigned a8);
/** ASSERT with 9 values. @return 1 */
int dbg_assert9(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5, unsigned a6, unsigned a7, unsigned a8,
                unsigned a9);
/** ASSERT with 10 values. @return 1 */
int dbg_assert10(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                 unsigned a3, unsigned a4, unsigned a5, unsigned a6, unsigned a7, unsigned a8,
                 unsigned a9, unsigned a10);
int dbg_verify0(const char *expr, const char *file,
                unsigned line); /**< VERIFY without values. @return 0 */
/** VERIFY with 1 value. @return 0 */
int dbg_verify1(const char *expr, const char *file, unsigned line, unsigned a1);
/** VERIFY with 2 values. @return 0 */
int dbg_verify2(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2);
/** VERIFY with 3 values. @return 0 */
int dbg_verify3(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3);
/** VERIFY with 4 values. @return 0 */
int dbg_verify4(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4);
/** VERIFY with 5 values. @return 0 */
int dbg_verify5(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5);
/** VERIFY with 6 values. @return 0 */
int dbg_verify6(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5, unsigned a6);
/** VERIFY with 7 values. @return 0 */
int dbg_verify7(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5, unsigned a6, unsigned a7);
/** VERIFY with 8 values. @return 0 */
int dbg_verify8(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5, unsigned a6, unsigned a7, unsigned a8);
/** VERIFY with 9 values. @return 0 */
int dbg_verify9(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                unsigned a3, unsigned a4, unsigned a5, unsigned a6, unsigned a7, unsigned a8,
                unsigned a9);
/** VERIFY with 10 values. @return 0 */
int dbg_verify10(const char *expr, const char *file, unsigned line, unsigned a1, unsigned a2,
                 unsigned a3, unsigned a4, unsigned a5, unsigned a6, unsigned a7, unsigned a8,
                 unsigned a9, unsigned a10);
/** @} */

/**
 * Runs one built-in failing check, to try the switches on a running system.
 * @param count which: 0 to 4 an ASSERT with that many values, 5 and 6 an ASSERT with a null
 *              expression or file, 7 VERIFYs with 0 to 4 values and on a text; others run nothing
 * @return 0
 */
int dbg_test_assert(int count);

UTILS_END_DECLS

/** The info word of a check on this line with @p count values. */
#define QEL_CHECK_INFO(kind, count)                                \
    ((kind) | UTILS_AS(unsigned, count) << QEL_CHECK_COUNT_SHIFT | \
     (UTILS_AS(unsigned, __LINE__) & QEL_CHECK_LINE_MASK))

/** A fatal check: nothing happens when @p expr holds. */
#define QEL_ASSERT(expr) \
    ((expr) ? (void)0 : (void)do_assert(#expr, __FILE__, QEL_CHECK_INFO(QEL_CHECK_ASSERT, 0)))

/** A check to recover from: @return 1 when @p expr holds;
 * otherwise it is reported and the value is 0 */
#define QEL_VERIFY(expr) \
    ((expr) ? 1 : do_assert(#expr, __FILE__, QEL_CHECK_INFO(QEL_CHECK_VERIFY, 0)))

/** As QEL_ASSERT(), with 1 to 10 integers that are shown with the report. */
#define QEL_ASSERT_VALUES(expr, ...)                                                            \
    ((expr) ? (void)0                                                                           \
            : (void)do_assert(#expr, __FILE__,                                                  \
                              QEL_CHECK_INFO(QEL_CHECK_ASSERT, QEL_COUNT_VALUES_(__VA_ARGS__)), \
                              QEL_VALUES_(QEL_COUNT_VALUES_(__VA_ARGS__), __VA_ARGS__)))

/** As QEL_VERIFY(), with 1 to 10 integers that are shown with the report. */
#define QEL_VERIFY_VALUES(expr, ...)                                                      \
    ((expr) ? 1                                                                           \
            : do_assert(#expr, __FILE__,                                                  \
                        QEL_CHECK_INFO(QEL_CHECK_VERIFY, QEL_COUNT_VALUES_(__VA_ARGS__)), \
                        QEL_VALUES_(QEL_COUNT_VALUES_(__VA_ARGS__), __VA_ARGS__)))

/** @cond The number of values, and each of them as the unsigned word that a report shows. */
#define QEL_COUNT_VALUES_(...) QEL_ELEVENTH_(__VA_ARGS__, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define QEL_ELEVENTH_(a, b, c, d, e, f, g, h, i, j, k, ...) k
#define QEL_VALUES_(count, ...) QEL_VALUES_OF_(count, __VA_ARGS__)
#define QEL_VALUES_OF_(count, ...) QEL_VALUES_##count(__VA_ARGS__)
#define QEL_VALUES_1(a) UTILS_AS(unsigned, a)
#define QEL_VALUES_2(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_1(__VA_ARGS__)
#define QEL_VALUES_3(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_2(__VA_ARGS__)
#define QEL_VALUES_4(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_3(__VA_ARGS__)
#define QEL_VALUES_5(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_4(__VA_ARGS__)
#define QEL_VALUES_6(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_5(__VA_ARGS__)
#define QEL_VALUES_7(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_6(__VA_ARGS__)
#define QEL_VALUES_8(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_7(__VA_ARGS__)
#define QEL_VALUES_9(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_8(__VA_ARGS__)
#define QEL_VALUES_10(a, ...) UTILS_AS(unsigned, a), QEL_VALUES_9(__VA_ARGS__)
/** @endcond */

#endif
