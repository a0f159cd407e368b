/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file ipc_server.h
 * @brief The daemon's side of the stand-in's messages.
 *
 * A daemon makes itself known with ipc_open() and registers its handlers with ipc_register(). Every
 * daemon has a socket "/run/korin/NODE.SWITCH.NAME.ipc"; requests are taken from processes of the
 * same user and of root only.
 *
 * Threads: every call may be made from any thread. Handlers run on one thread of the stand-in,
 * which has all signals blocked, one at a time. A child made by fork() serves nothing.
 *
 * At most 32 requesters are connected, fewer when descriptors run short; further ones wait in the
 * queue, within their own time limits. A requesting thread keeps its connection for its next
 * request; either side ends it after 5 seconds without one, and the daemon ends those idle longest
 * earlier when others need the room. A connection is kept while its request waits for an answer. A
 * request that the daemon has not received when it ends the connection goes over a new one; a
 * request that it may have received is never sent again. The connections of a requester end with
 * their thread, and are not passed on to a child made by fork().
 */
#ifndef UTILS_PLATFORM_POSIX_IPC_SERVER_H
#define UTILS_PLATFORM_POSIX_IPC_SERVER_H

#include <utils/platform/ipc.h>

UTILS_BEGIN_DECLS

#define IPC_SOCKET_DIRECTORY "/run/korin" /**< the daemons' sockets; sticky when others may write */
/** A daemon's socket as printf() writes its path: int node, int switch, name. */
#define IPC_SOCKET_FORMAT IPC_SOCKET_DIRECTORY "/%d.%d.%s.ipc"
#define IPC_MESSAGE_SIZE 2048 /**< room for the request in a message to a handler */
#define IPC_HANDLERS_MAX 32   /**< most message codes that a daemon registers */

/**
 * Handles one request.
 * @param reply_address what ipcSend() takes to answer; an ipc_address, which may be copied and used
 *                      later, from any thread, as long as the requester waits
 * @param code          the request's message code
 * @param message       a word that belongs to the platform, then IPC_MESSAGE_SIZE bytes: the
 *                      request, filled up with zeros. Valid and writable until the handler
 *                      returns. Null for a request without any bytes.
 * @return ignored
 */
typedef int (*ipc_handler)(void *reply_address, int code, void *message);

/**
 * Opens this process's socket under @p own and starts the thread that serves it. What a dead daemon
 * left there is replaced. The socket goes with ipc_close() or exit(). Waits for a process of the
 * same user that is opening the same name, 20 seconds at most; the other calls do not wait for it.
 * @return 0, or a negated errno value: -98 when a living daemon has the name, -114 when this
 * process is open or opening already, -110 when the wait has been too long, -22 for a bad name, -1
 * when "/run/korin" is another user's, or open to others and not sticky, and those of the system
 */
int ipc_open(const ipc_address *own);

/** Lets @p handler serve requests of @p code, before or after ipc_open(); replaces an earlier one.
 * @return 0, or -28 when IPC_HANDLERS_MAX codes are taken */
int ipc_register(int code, ipc_handler handler);

/** Refuses requests of @p code from now on. @return 0, or -2 when it was not registered */
int ipc_unregister(int code);

/** Closes the socket; waits for the handler that runs,
 * unless it is called from there. Registrations stay. */
void ipc_close(void);

UTILS_END_DECLS

#endif
