/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file signals.h
 * @brief Where core files land, and what a daemon does on the signals that end it.
 *
 * A daemon calls qel_sigdefaults() once at start-up. Its core files then go to a directory of its
 * own under "/core_files", which is also its working directory. (The kernel writes them there when
 * "/proc/sys/kernel/core_pattern" is a plain file name.)
 *
 * | signal         | number      | what happens                                             |
 * |----------------|-------------|----------------------------------------------------------|
 * | SIGINT         | 2           | report, cleanup callback, exit with status 2             |
 * | SIGQUIT        | 3           | report, cleanup callback, exit with status 3             |
 * | SIGPIPE        | 13          | report; the write that raised it fails with its error    |
 * | SIGSTKFLT      | 16          | report, core file                                        |
 * | SIGPROF        | 27          | report, core file                                        |
 *
 * Other faults keep the kernel's action. The first signal that ends the process decides: a later
 * one of that kind (not the two that force a core file) only reports and returns, so that the
 * cleanup callback runs at most once.
 *
 * Output that nobody reads stops none of this. A report of a process that goes on waits a tenth of
 * a second for room, those of one that ends a second; then they are dropped. A pipe without reader
 * raises no further SIGPIPE. Before the exit functions run, standard output and error are written
 * out for two seconds at most; when that fails both lead to "/dev/null" from then on. The C
 * library's flush of the other streams has one second, behind the exit functions; then the process
 * ends with its status all the same.
 *
 * Threads: set up before other threads start. The handler runs on the thread that gets the signal
 * and makes only async-signal-safe calls, but for the cleanup callback and exit().
 */
#ifndef UTILS_SIGNALS_H
#define UTILS_SIGNALS_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define QEL_CORE_DIRECTORY "/core_files" /**< directory of the core file directories */
#define QEL_CORE_LIMIT 0x7FFFFFFF        /**< soft limit of the size of core files, in bytes */
#define QEL_SIGNAL_DUMP_STKFLT 16        /**< SIGSTKFLT: forces a core file */
#define QEL_SIGNAL_DUMP_PROF 27          /**< SIGPROF: forces a core file */

/** A signal handler; gets the signal's number. */
typedef void (*qel_handler)(int);

/**
 * Raises the core size limit and makes "/core_files/NAME" the working directory, creating it when
 * it is missing. Either directory is refused when it belongs to neither root nor the process's
 * user, or when others may write it and it is not sticky; NAME is refused when it is a link.
 * @param name the program's name, cut to 31 characters in messages; null counts as ""
 * @return 0; -1 when the directory is refused or cannot be entered; when a limit cannot be read or
 *         set, the result of the message about it. The working directory is unchanged in both cases
 */
int qel_coreenv_set(const char *name);

/** Makes "/core_files" the working directory. @return 0, or -1 when it is refused as by
 *  qel_coreenv_set() or cannot be entered */
int qel_pwddefault(void);

/** Lets @p cleanup run, at most once, before a signal ends the process; null removes it. */
void qel_sigcleanup_set(void (*cleanup)(void));

/**
 * Calls qel_coreenv_set(), then installs qel_sighandler() for the five signals of the table above.
 * @param name the program's name
 * @return the previous handler of signal 27, or SIG_ERR
 */
qel_handler qel_sigdefaults(const char *name);

/**
 * The handler: acts by signal number as the table above says; any other number, 0 too, is treated
 * like SIGINT. A program may install it for further signals.
 */
void qel_sighandler(int signal);

UTILS_END_DECLS

#endif
