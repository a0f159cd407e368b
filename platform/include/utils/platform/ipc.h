/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file ipc.h
 * @brief Platform: messages to daemons, addressed by node, logical switch and name.
 *
 * How a daemon makes itself known and registers its handlers is the platform's own business.
 */
#ifndef UTILS_PLATFORM_IPC_H
#define UTILS_PLATFORM_IPC_H

#include <utils/base.h>
#include <utils/platform/ipc_address.h>

UTILS_BEGIN_DECLS

#define IPC_REQUEST_MAX 2044 /**< longest request: a block of 20 and 2024 bytes */
#define IPC_REPLY_MAX 2048   /**< longest reply in bytes */

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
 * so answers its request.
 * @param address an ipc_address, or the reply address of a handler
 * @param code    the message's code
 * @param data    its bytes
 * @param length  their number
 * @param timeout as for ipcSendRcv(), for the delivery alone
 * @return 0, or a negated errno value when it cannot be delivered
 */
int ipcSend(void *address, int code, const void *data, uint32_t length, const uint32_t timeout[2]);

UTILS_END_DECLS

#endif
