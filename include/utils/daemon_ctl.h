/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file daemon_ctl.h
 * @brief Tell a daemon of this control processor to send its output elsewhere, or to end.
 *
 * A tool calls qelDRedirectOutput(), qelDRedirOutputToSocket() or qelDExitRequest() with the
 * daemon's name and the message code under which the daemon registered the handler. The request
 * goes to the daemon on this process's own node and switch; it and the answer are given 20 seconds.
 *
 * An exchange that fails (no such daemon, a name that no address holds, no answer) reports 0, like
 * success: ask whether the daemon is there before relying on the result.
 *
 * A daemon registers ipcCbQelDRedirectOutput() and ipcCbQelDExitHandler() with the platform's IPC.
 * Redirection changes descriptors 1 and 2, for all threads at once, and makes them non-blocking: a
 * daemon never stalls because its terminal or server does not read; what does not fit is lost.
 * When the server closes the connection the next output raises SIGPIPE, which ends a daemon that
 * neither ignores nor handles it (qel_sigdefaults(), signals.h, does): POSIX's write().
 *
 * An exit request waits for a reader of the daemon's
 * output no longer than a signal does (signals.h).
 *
 * Threads: the requests may be made from any thread; the handlers run on the platform's.
 */
#ifndef UTILS_DAEMON_CTL_H
#define UTILS_DAEMON_CTL_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name Kinds of redirection
 *  @{ */
#define QELD_REDIRECT_PATH 1   /**< to a file or terminal */
#define QELD_REDIRECT_SERVER 2 /**< to a TCP server */
/** @} */

/** @name Exit modes
 *  @{ */
#define QELD_EXIT_NORMAL 1 /**< exit with status 0 */
#define QELD_EXIT_ABORT 2  /**< abort, so that a core file is written */
/** @} */

#define QELD_TIMEOUT_SECONDS 20 /**< time for a request and for its answer */
#define QELD_NO_MESSAGE (-6)    /**< status: the request came without a message */

/**
 * Asks a daemon to append its standard output and error to @p path. The daemon reports a path that
 * it cannot open as success, and keeps its output where it was.
 * @param path   file or terminal, as the daemon sees it
 * @param daemon the daemon's name, at most 63 characters
 * @param code   the message code of its redirect handler
 * @return the daemon's status (0, -1, UTILS_EINVAL, UTILS_EAGAIN or QELD_NO_MESSAGE), 0 when the
 *         exchange fails, UTILS_EINVAL when @p path or @p daemon is null, UTILS_ENOMEM when the
 *         request cannot be encoded
 */
int qelDRedirectOutput(const char *path, const char *daemon, int code);

/**
 * Asks a daemon to connect its standard output and error to a TCP server.
 * @param host   the server's IPv4 address in dotted form
 * @param port   its port
 * @param daemon the daemon's name
 * @param code   the message code of its redirect handler
 * @return as qelDRedirectOutput(); -1 when the daemon cannot connect
 */
int qelDRedirOutputToSocket(const char *host, int port, const char *daemon, int code);

/**
 * Asks a daemon to end.
 * @param daemon the daemon's name
 * @param code   the message code of its exit handler
 * @param mode   QELD_EXIT_NORMAL or QELD_EXIT_ABORT; the daemon refuses others with UTILS_EINVAL
 * @return as qelDRedirectOutput()
 */
int qelDExitRequest(const char *daemon, int code, int mode);

/**
 * Message handler for redirect requests. A request that is malformed or of an unknown kind is
 * answered UTILS_EINVAL; its segment, if it came with one, is removed.
 * @param reply_address where the answer goes
 * @param code          the message code
 * @param message       the platform's word, then the argument block in at least 2044 bytes; or null
 * @return the result of the answer's ipcSend()
 */
int ipcCbQelDRedirectOutput(void *reply_address, int code, void *message);

/** Message handler for exit requests: answers, then ends the process if it was asked to. Parameters
 * and result as ipcCbQelDRedirectOutput(). */
int ipcCbQelDExitHandler(void *reply_address, int code, void *message);

/**
 * Appends this process's standard output and error to @p path, which is created with mode 0666
 * (less the umask) when it does not exist.
 * @return 0 (also when the path is null or cannot be opened),
 * or -1 when a descriptor cannot be duplicated
 */
int qelDRedirectOutput_impl(const char *path);

/**
 * Connects this process's standard output and error to a TCP server and says so there. Waits as
 * long as the system takes to connect; a failure is reported on standard error.
 * @return 0, or -1 when @p host is null, @p port is 0, or the connection fails
 */
int qelDRedirOutputToSocket_impl(const char *host, int port);

UTILS_END_DECLS

#endif
