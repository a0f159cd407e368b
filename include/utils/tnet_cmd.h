/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file tnet_cmd.h
 * @brief Remote command channel: run a command inside a daemon and see its output.
 *
 * The tool holds a connected stream socket to the daemon and calls qelTnetCmd(). The daemon
 * accepts, picks the command's descriptor, calls qelTnetCmdCB() and closes the socket, which tells
 * the tool that the command has finished. How the two find each other is theirs to say.
 *
 * The command line travels as one message of big-endian 32-bit words: the number L of bytes that
 * follow, the number of arguments, for each the offset of its text from that second word, a zero;
 * then the texts with their NULs. qelTnetCmd() lays the texts end to end in the order of the
 * arguments; qelTnetCmdCB() takes them in any order, shared or with gaps, as long as each ends with
 * a NUL inside the message. A message with an L above QEL_TNET_COMMAND_MAX is neither sent nor run.
 *
 * qelTnetCmdCB() waits for the message as long as the connection lasts, also on a socket that does
 * not block. A daemon that must not be held up sets SO_RCVTIMEO and SO_SNDTIMEO on the socket, or
 * serves each connection on a thread of its own. SIGPIPE is held back from the calling thread
 * meanwhile, so that a client that goes away costs the daemon this connection only; threads and
 * programs that the command starts inherit the blocked SIGPIPE.
 *
 * Threads: each call works on its own socket; a daemon may serve several at a time.
 */
#ifndef UTILS_TNET_CMD_H
#define UTILS_TNET_CMD_H

#include <stdio.h>
#include <utils/base.h>

UTILS_BEGIN_DECLS

#define QEL_TNET_COMMAND_MAX 65536 /**< most bytes behind the length word of a command message */
#define QEL_TNET_CHUNK_SIZE 512    /**< bytes that the relay reads at a time */

/** A command: writes its output to @p out, which it leaves open;
 * argv[argc] is null. Its result is ignored. */
typedef int (*qelTnetCommand)(int argc, char **argv, FILE *out);

/** A command of a daemon, and how the ready-made handlers reach the daemon they act on. */
typedef struct qelTnetCmdDesc {
    uintptr_t unused;       /**< for the daemon's own use */
    qelTnetCommand command; /**< the command function */
    const char *daemon;     /**< name of the daemon that the handlers address */
    int code;               /**< message code that they use */
} qelTnetCmdDesc;

/** Arguments of qelTnetCmdRedirHdlr(). */
typedef struct qelTnetRedirArgs {
    int instance;     /**< the daemon's instance, for messages */
    int kind;         /**< QELD_REDIRECT_PATH or QELD_REDIRECT_SERVER */
    int port;         /**< TCP port of the server */
    const char *text; /**< path or host; null: the caller's terminal */
} qelTnetRedirArgs;

/**
 * Sends a command and copies what the daemon writes to @p out until the connection ends. While the
 * socket has data a slow @p out never holds it up: output is queued without limit. In the end the
 * rest is written with the flags that @p out had; one that was non-blocking is waited for, up to
 * 100 ms at a time, and given up when it takes nothing
 * for 100 such times. Prints nothing of its own.
 * @param socket connected stream socket, below 1024; stays open
 * @param argc   number of arguments
 * @param argv   the arguments
 * @param out    descriptor below 1024; its flags are changed and put back
 */
void qelTnetCmd(int socket, int argc, char **argv, int out);

/**
 * Reads one command from @p socket and runs @p command with it. The command's stream is closed when
 * it returns, the socket is not.
 */
void qelTnetCmdCB(int socket, qelTnetCommand command);

/** qelTnetCmdCB() on @p socket with the command function of @p descriptor. */
void qelTnetCmdCBwrapper(int socket, qelTnetCmdDesc *descriptor);

/**
 * Asks the descriptor's daemon to redirect its output;
 * says so on standard output, failures on standard error.
 * @param descriptor the daemon's name and code
 * @param args       a qelTnetRedirArgs
 * @return the result of qelDRedirectOutput() or qelDRedirOutputToSocket(); -1 when a file named in
 *         @p args fails; 0 when standard input is closed, so that there is no terminal to redirect
 *         to; UTILS_EINVAL for another kind
 * @note The terminal is whatever "/proc/self/fd/0" names. With a pipe as standard input that is a
 *       text like "pipe:[4711]", and the daemon makes a file of that name in its own working
 *       directory; ask isatty() before.
 */
int qelTnetCmdRedirHdlr(qelTnetCmdDesc *descriptor, void *args);

/**
 * Asks the descriptor's daemon to exit; a failure is reported on standard error.
 * @param descriptor the daemon's name and code
 * @param args       an int, the exit mode
 * @return the result of qelDExitRequest()
 */
int qelTnetCmdExitHdlr(qelTnetCmdDesc *descriptor, void *args);

UTILS_END_DECLS

#endif
