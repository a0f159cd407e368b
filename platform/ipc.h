/**
 * @file ipc.h
 * @brief Platform: messages to daemons, addressed by node, logical switch and name.
 *
 * The library calls ipcSendRcv() and ipcSend() only. A daemon registers its handlers with
 * ipc_register(), which belongs to the stand-in.
 */
#ifndef UTILS_PLATFORM_IPC_H
#define UTILS_PLATFORM_IPC_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define IPC_NAME_SIZE 64      /**< room for a daemon's name and its terminator in an address */
#define IPC_REQUEST_MAX 2044  /**< longest request: a block header of 20 bytes and a body of 2024 \
                               */
#define IPC_REPLY_MAX 2048    /**< longest reply in bytes */
#define IPC_MESSAGE_SIZE 2048 /**< room behind the platform word of a message given to a handler \
                               */

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
 * @return 0, or non-zero when nobody answers in time
 */
int ipcSendRcv(void *address, int code, const void *request, uint32_t requestLength, void *reply,
               uint32_t *replyLength, const uint32_t timeout[2]);

/**
 * Sends one message without waiting; a handler passes the address and code it was called with and
 * so answers its request. @return 0, or non-zero when it cannot be delivered
 */
int ipcSend(void *address, int code, const void *data, uint32_t length, const uint32_t timeout[2]);

UTILS_END_DECLS

#endif
