/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file console.h
 * @brief Messages to the operator's console, and the on/off switch files of the system.
 *
 * For daemons that run detached from any terminal. The console is opened for each message and
 * closed again, so that it is never held.
 *
 * Threads: no state is kept, any thread may call; messages of several callers can interleave. Not
 * for signal handlers.
 */
#ifndef UTILS_CONSOLE_H
#define UTILS_CONSOLE_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define CONFIG_SWITCH_DIRECTORY "/etc/config" /**< directory of the switch files */

/**
 * Prints to the system console; nothing happens when it cannot be opened.
 * @param format printf format of the message
 * @return 0; when closing the console fails, the result of the report on standard error
 */
int console_printf(const char *format, ...) UTILS_PRINTF(1, 2);

/**
 * Prints to the system console and, unless standard output is itself a console line
 * ("/dev/console", "/dev/ttyS0" or "/dev/ttyS1"), to standard output, which is not flushed.
 * @param format printf format of the message
 * @return 0 when standard output is a console line, else the result of the print to it
 */
int verbose_printf(const char *format, ...) UTILS_PRINTF(1, 2);

/**
 * Reads the switch file @p name in CONFIG_SWITCH_DIRECTORY.
 * @param name file name of the switch
 * @return 1 (on) when the file begins with "on" in upper or lower case, when it is missing or
 * cannot be opened, or when its path is too long; 0 (off) for any other content, an empty or
 *         unreadable file and a null name
 */
int check_config_onoff(const char *name);

UTILS_END_DECLS

#endif
