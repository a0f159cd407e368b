/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file daemon_codes.h
 * @brief The message codes of the requests that every daemon serves, and how a request arrives.
 *
 * A daemon registers the library's handlers under these codes, and the operator's command sends
 * them. A daemon's own codes start at IPC_CODE_OWN.
 *
 * A message handler gets the platform's word and behind it the request. The word has 4 bytes on
 * every platform, whatever the width of a pointer: who skips a pointer's width reads every request
 * wrong on a 64-bit machine. A handler that reads an argument block itself begins so:
 * @code
 * static int on_request(void *reply_address, int code, void *message) {
 *     int32_t status = QELD_NO_MESSAGE;
 *     if (message != NULL) {
 *         qelIpcArgBlock *block = (void *)((char *)message + IPC_MESSAGE_WORD_SIZE);
 *         qelIpcArgsReceived(block);
 *         status = qelIpcArgsDecode(block);
 *         if (status == 0) {
 *             status = use(qelIpcArgsData(block), qelIpcArgsDataLength(block));
 *             qelIpcArgsDestroy(block);
 *         }
 *     }
 *     return ipcSend(reply_address, code, &status, sizeof status, NULL);
 * }
 * @endcode
 * The rows of a daemon_request table (utils/daemon.h) do all that before their handler is called.
 */
#ifndef UTILS_DAEMON_CODES_H
#define UTILS_DAEMON_CODES_H

#define IPC_CODE_REDIRECT_OUTPUT 0x4401 /**< ipcCbQelDRedirectOutput() */
#define IPC_CODE_EXIT 0x4402            /**< ipcCbQelDExitHandler() */
#define IPC_CODE_OWN 0x4500             /**< the first code that is free for a daemon's own use */

#define IPC_MESSAGE_WORD_SIZE 4 /**< bytes of the platform's word in front of a request */

#endif
