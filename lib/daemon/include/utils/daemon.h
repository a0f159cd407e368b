/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file daemon.h
 * @brief libutils-daemon: a daemon from a table, one that qelctl can operate.
 *
 * A program describes its daemon in a daemon_table and calls daemon_run(), which does what every
 * daemon of the system does: command line, single instance, signals and core files, pid file, log
 * cache, event logs, statistics, message queue, timers, command socket, requests, readiness, the
 * loop, and an orderly end. One with a main() of its own calls daemon_open(), daemon_ready(),
 * daemon_loop() (or daemon_step()) and daemon_close() instead. libutils-daemon(7) says in which
 * order things start and what each failure does.
 *
 * Not for programs that run and end like a command, and not for two daemons in one process: there
 * is one per process, so that no call takes a handle.
 *
 * Threads: daemon_open(), daemon_step(), daemon_loop() and daemon_close() belong to one thread, the
 * loop's. Handlers of messages, timers, descriptors and requests, and deferred calls, run there one
 * at a time. A command runs on a thread of its own unless it is marked DAEMON_IN_LOOP. Every other
 * call may come from any thread. After fork() a child uses none of these calls; when it ends it
 * removes nothing.
 */
#ifndef UTILS_DAEMON_H
#define UTILS_DAEMON_H

#include <stdio.h>
#include <utils/base.h>
#include <utils/cla.h>
#include <utils/evlog.h>
#include <utils/msgq.h>
#include <utils/timer_r.h>
#include <utils/tnet_cmd.h>

UTILS_BEGIN_DECLS

#define DAEMON_DIRECTORY "/run/korin" /**< sockets and locks; see libutils-daemon(7) */
/** A daemon's file as printf() writes its path: its name, int switch, "cmd" (the command socket),
 * "lock" or what daemon_own_file() was asked for. */
#define DAEMON_FILE_FORMAT DAEMON_DIRECTORY "/%s.%d.%s"
#define DAEMON_CLIENTS_MAX 16    /**< most commands at a time; further ones are refused */
#define DAEMON_SILENCE_SECONDS 5 /**< longest silence of a command's client */
#define DAEMON_STOP_SECONDS 10   /**< longest orderly stop; then the process is ended */
#define DAEMON_QUEUE_DEPTH 256   /**< messages of the loop's queue unless the table says */
#define DAEMON_NAME_MAX 63       /**< longest name of a daemon in characters */
#define DAEMON_REFUSED 1         /**< exit status: the daemon could not start */
#define DAEMON_USAGE 2           /**< exit status: the command line is wrong */

/** First byte of the companion's own messages in the loop's queue; a daemon's have another one, and
 * not TIMER_MESSAGE_TYPE. */
#define DAEMON_MESSAGE_WAKE 255

/** @name Flags of a command
 *  @{ */
#define DAEMON_IN_LOOP 1u /**< runs on the loop's thread, between two messages */
/** @} */

/** @name Flags of an event log
 *  @{ */
#define DAEMON_LOG_COMMANDS 1u /**< each command that runs is noted in it: "command WORD" */
/** @} */

/** @name What a descriptor is watched for, and what its handler is told
 *  @{ */
#define DAEMON_READABLE 1u /**< input, a connection, or the end of it */
#define DAEMON_WRITABLE 2u /**< room for output */
#define DAEMON_BROKEN 4u   /**< an error or a hang-up; always told, need not be asked for */
/** @} */

/** A command of the command socket. A table ends with a row without a word. */
typedef struct daemon_command {
    const char *word;      /**< what the operator types; not one of the built-in words */
    const char *arguments; /**< its arguments, as help shows them; or null */
    const char *help;      /**< what it does, in one line */
    qelTnetCommand run;    /**< does it; its result (0 is success) becomes qelctl's exit status */
    uint32_t flags;        /**< DAEMON_IN_LOOP or 0 */
} daemon_command;

/** An event log. A table ends with a row without a name. */
typedef struct daemon_log {
    const char *name;         /**< the log's name, see qel_evlog_newHandle() */
    const char *shortcut;     /**< its shortcut */
    int entries;              /**< size of its ring */
    qel_evlog_handle **place; /**< receives the log */
    uint32_t flags;           /**< DAEMON_LOG_COMMANDS or 0 */
} daemon_log;

/**
 * Serves a request on the loop's thread.
 * @param data         a copy of the payload of the request's argument block, which nobody changes
 * any more; null when it is empty
 * @param length       its bytes, within the row's bounds; argument blocks round up to a multiple of
 * 4 with zeros
 * @param reply        room for 2048 bytes of an answer
 * @param reply_length 0 on entry; bytes of @p reply to send. When it stays 0 the result is sent, as
 * one native 32-bit word
 * @param argument     the row's
 * @return the status, 0 for success or negative
 */
typedef int32_t (*daemon_request_handler)(const void *data, uint32_t length, void *reply,
                                          uint32_t *reply_length, void *argument);

/** A request that the daemon serves. A table ends with a row without a handler. A request that is
 * no argument block, or out of bounds, is answered UTILS_EINVAL and not handed on. */
typedef struct daemon_request {
    int code;       /**< message code, IPC_CODE_OWN of utils/daemon_codes.h or more */
    uint32_t least; /**< fewest bytes of payload */
    uint32_t most;  /**< most bytes of payload */
    daemon_request_handler handle; /**< serves it */
    void *argument;                /**< for the handler */
} daemon_request;

/** What a daemon is. Everything but the name may be 0. It, its tables and their texts must live as
 * long as the process. */
typedef struct daemon_table {
    const char *name;    /**< its name unless option -n gives another; no '.', '/' or blank */
    const char *version; /**< what its command "version" says */
    const char *usage;   /**< its own options, for the usage line: "[-p PERIOD_MS]" */
    const claFltrEntry *options; /**< its own options, ended by a row without handler; -s and -n are
                                    taken */
    const daemon_command *commands; /**< its commands */
    const daemon_log *logs;         /**< its event logs, at most 15 */
    const daemon_request *requests; /**< its requests besides redirect and exit */
    int (*start)(void *argument);   /**< called by daemon_run() when all but the sockets is there;
                                       non-zero refuses to start and becomes the exit status */
    void (*message)(const void *message, void *argument); /**< gets the messages in the loop's queue
                                                             that are not expiries */
    void (*stop)(void *argument); /**< called by daemon_close() at an orderly end, when commands and
                                     requests have ended and timers have not */
    void *argument;               /**< for these three */
    int queue_depth;       /**< messages of the loop's queue; every armed timer may need one */
    unsigned message_size; /**< longest message in bytes, at least TIMER_MESSAGE_LENGTH */
    uintptr_t reserved[4]; /**< 0 */
} daemon_table;

/** @name The whole daemon
 *  @{ */

/**
 * Runs a daemon from its start to its end.
 * @param table what it is
 * @param argc number of arguments
 * @param argv the arguments of main(); options are taken out, anything left is wrong usage
 * @return the exit status: what daemon_stop() was given, 0 after a signal that asks for an orderly
 *         end, DAEMON_REFUSED or DAEMON_USAGE; the reason has been printed on standard error
 */
int daemon_run(const daemon_table *table, int argc, char **argv);

/**
 * Asks for the orderly end; the first call decides. The loop ends after the handler that runs. When
 * the end has not come within DAEMON_STOP_SECONDS the process is ended with DAEMON_REFUSED. Also
 * for signal handlers.
 * @param status exit status
 */
void daemon_stop(int status);

/** @} */
/** @name For a program with its own main()
 *  @{ */

/**
 * Takes the options -s SWITCH, -n NAME and the table's own off the command line, and starts
 * everything that does not let others in: lock, signals, pid file, log cache, event logs,
 * statistics, queue, timers, watched descriptors. The name's lock stays until the process ends.
 * @param table what it is
 * @param argc number of arguments; lowered by what was taken
 * @param argv the arguments, left for the caller to check
 * @return 0, or the exit status with which main() is to end; the reason has been printed, and
 * nothing of a living instance was touched
 */
int daemon_open(const daemon_table *table, int *argc, char **argv);

/**
 * Opens command and request socket and tells the service manager that the daemon is ready.
 * @return 0, or the exit status with which main() is to end; the reason has been printed
 */
int daemon_ready(void);

/** Serves the queue until daemon_stop(). @return its status */
int daemon_loop(void);

/**
 * Waits for one message, and serves it and what else is due; for loops of one's own, which have to
 * call it often when the service manager's watchdog is on.
 * @param timeout_ms milliseconds, UTILS_WAIT_FOREVER or UTILS_NO_WAIT
 * @return 0 when the daemon goes on, 1 when it is to stop
 */
int daemon_step(int timeout_ms);

/** Ends in order: no more requests and commands (running ones get two seconds), the table's stop
 * function, timers, socket and pid file. */
void daemon_close(void);

/**
 * Says on console and standard error "NAME: cannot start: WHAT: REASON", with the system's reason
 * when errno is not 0.
 * @param what what has failed
 * @return DAEMON_REFUSED
 */
int daemon_refuse(const char *what);

/** @} */
/** @name In the running daemon
 *  @{ */

/** @return the daemon's name */
const char *daemon_name(void);

/** @return the loop's queue, to which timers and the callback registry may post */
msgQHandle daemon_queue(void);

/** @return the database of the event logs */
qel_evlog_db *daemon_logs(void);

/**
 * Creates one more event log; parameters as for qel_evlog_newHandle(). Once a creation has failed
 * the database stays locked: further calls return null at once, and dumps are refused.
 * @return the log, or null
 */
qel_evlog_handle *daemon_new_log(int entries, const char *name, const char *shortcut);

/** Makes a queue of @p depth messages of @p size bytes that the command "queues" shows. It must not
 * be deleted. @p name names it. @return the queue, or null */
msgQHandle daemon_new_queue(int depth, unsigned size, const char *name);

/** Lets the command "queues" show @p queue, which must not be deleted. @return 0, or UTILS_ENOMEM
 */
int daemon_add_queue(msgQHandle queue);

/**
 * Makes an idle timer on the loop's queue that the command "timers" shows; arm it with
 * timer_set_r(), release it with daemon_delete_timer().
 * @param name     shown by "timers"; must live as long as the timer
 * @param periodic 1: periodic
 * @param handler  called on the loop's thread
 * @param arg1     its first argument
 * @param arg2     its second argument
 * @return the timer, or null
 */
timerHandle daemon_new_timer(const char *name, int periodic, timerHandler handler, uintptr_t arg1,
                             uintptr_t arg2);

/** Lets the command "timers" show @p timer under @p name until daemon_delete_timer(). @return 0, or
 * UTILS_ENOMEM */
int daemon_add_timer(timerHandle timer, const char *name);

/** Deletes @p timer, as timer_delete_r(), and shows it no more. @return 0, or -1 */
int daemon_delete_timer(timerHandle timer);

/** Serves @p descriptor on the loop's thread: @p events are DAEMON_READABLE and its kind, as many
 * as hold. The handler is called again as long as they do. */
typedef void (*daemon_handler)(int descriptor, uint32_t events, void *argument);

/**
 * Watches a descriptor; any number of them. One that is watched already gets the new events,
 * handler and argument.
 * @param descriptor anything that poll() can wait for
 * @param events     DAEMON_READABLE, DAEMON_WRITABLE or both
 * @param handler    called on the loop's thread
 * @param argument   for the handler
 * @return 0, or a negated errno value: -1 for a regular file, which is always ready
 */
int daemon_watch(int descriptor, uint32_t events, daemon_handler handler, void *argument);

/** Stops watching @p descriptor; call it before closing. On the loop's thread the handler is not
 * called any more. @return 0, or UTILS_ENOENT */
int daemon_unwatch(int descriptor);

/** Calls @p call with @p argument once on the loop's thread, soon. Never refused for a full queue.
 * @return 0, UTILS_ENOMEM, or UTILS_EAGAIN when the daemon has stopped */
int daemon_defer(void (*call)(void *argument), void *argument);

/** Gives the calling thread a stack for fatal signals, so that socket and pid file go even when its
 * own has overflowed. The loop's and the commands' threads have one. @return 0, or UTILS_ENOMEM */
int daemon_guard_thread(void);

/**
 * Opens "/run/korin/NAME.SWITCH.KIND" for reading and writing, as a lock file for
 * utils/proc_rwlock.h for instance. It is created with mode 0600 when it is missing; a link, or a
 * file that somebody else owns, is refused.
 * @param kind end of its name; "lock", "cmd", "pid" and "ipc" are taken
 * @return a descriptor of the caller's, close-on-exec, or -1 with errno
 */
int daemon_own_file(const char *kind);

/** Shows the service manager one line of @p text about what the daemon does. */
void daemon_status(const char *text);

/** @} */
/** @name Ready-made commands for the table
 *  Each ignores its @p argc words in @p argv, writes to @p out, and returns 0 or 1. @{ */

/** Command: dumps the event logs. */
int daemon_cmd_events(int argc, char **argv, FILE *out);
/** Command: prints the log cache. */
int daemon_cmd_log(int argc, char **argv, FILE *out);
/** Command: appends the statistics of the commands to the switch's report and clears them. */
int daemon_cmd_stats(int argc, char **argv, FILE *out);

/** @} */

UTILS_END_DECLS

#endif
