/**
 * @file ipc.h
 * @brief Platform: messages to daemons, addressed by node, logical switch and name.
 *
 * The library calls ipcSendRcv() and ipcSend() only. A daemon makes itself known with ipc_open()
 * and registers its handlers with ipc_register(); both belong to the stand-in, which gives every
 * daemon a socket "/run/korin/NODE.SWITCH.NAME.ipc". Requests are taken from processes of the same
 * user and of root only.
 */
#ifndef UTILS_PLATFORM_IPC_H
#define UTILS_PLATFORM_IPC_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define IPC_NAME_SIZE 64      /**< room for a daemon's name and its terminator in an address */
#define IPC_REQUEST_MAX 2044  /**< longest request: a block of 20 and 2024 bytes */
#define IPC_REPLY_MAX 2048    /**< longest reply in bytes */
#define IPC_MESSAGE_SIZE 2048 /**< room for the request in a message to a handler */
#define IPC_HANDLERS_MAX 32   /**< most message codes that a daemon registers */

/** @name Message codes of the demo daemons
 *  @{ */
#define IPC_CODE_REDIRECT_OUTPUT 0x4401 /**< ipcCbQelDRedirectOutput() */
#define IPC_CODE_EXIT 0x4402            /**< ipcCbQelDExitHandler() */
/** @} */

/** Where a request goes; native byte order, it never leaves the machine. */
typedef struct ipc_address {
    uint16_t node;            /**< control processor, 5 or 6 */
    uint16_t switch_no;       /**< logical switch */
    char name[IPC_NAME_SIZE]; /**< the daemon's name */
} ipc_address;

/**
 * Sends a request and waits for its reply.
 * @param address       an ipc_address
 * @param code          the request's message code
 * @param request       its bytes
 * @param requestLength their number
 * @param reply         receives the reply
 * @param replyLength   room in @p reply on entry, bytes received on return; a longer reply is cut
 * @param timeout       seconds and microseconds; null waits without limit
 * @return 0, or a negated errno value when the daemon is not there, does not know the code or does
 *         not answer in time
 */
int ipcSendRcv(void *address, int code, const void *request, uint32_t requestLength, void *reply,
               uint32_t *replyLength, const uint32_t timeout[2]);

/**
 * Sends one message without waiting; a handler passes the address and code it was called with and
 * so answers its request. @return 0, or a negated errno value when it cannot be delivered
 */
int ipcSend(void *address, int code, const void *data, uint32_t length, const uint32_t timeout[2]);

/** @name The stand-in's daemon side
 *  Threads: every call may be made from any thread. Handlers run on one thread of the stand-in,
 *  which has all signals blocked, one at a time. A child made by fork() serves nothing. @{ */

/**
 * Handles one request.
 * @param reply_address what ipcSend() takes to answer; an ipc_address, which may be copied and used
 *                      later, from any thread, as long as the requester waits
 * @param code          the request's message code
 * @param message       a word that belongs to the platform, then IPC_MESSAGE_SIZE bytes: the
 * request, filled up with zeros. Valid and writable until the handler returns. Null for a request
 * without any bytes.
 * @return ignored
 */
typedef int (*ipc_handler)(void *reply_address, int code, void *message);

/**
 * Opens this process's socket under @p own and starts the thread that serves it. What a dead daemon
 * left there is replaced. The socket goes with ipc_close() or exit().
 * @return 0, or a negated errno value: -98 when a living daemon has the name, -114 when this
 * process is open already, -22 for a bad name, and those of the system
 */
int ipc_open(const ipc_address *own);

/** Lets @p handler serve requests of @p code, before or after ipc_open(); replaces an earlier one.
 * @return 0, or -28 when IPC_HANDLERS_MAX codes are taken */
int ipc_register(int code, ipc_handler handler);

/** Refuses requests of @p code from now on. @return 0, or -2 when it was not registered */
int ipc_unregister(int code);

/** Closes the socket; waits for the handler that runs, unless it is called from there.
 * Registrations stay. */
void ipc_close(void);
/** @} */

UTILS_END_DECLS

#endif
