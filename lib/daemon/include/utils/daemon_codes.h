/**
 * @file daemon_codes.h
 * @brief The message codes of the requests that every daemon serves.
 *
 * A daemon registers the library's handlers under these codes, and the operator's command sends
 * them. A daemon's own codes start at IPC_CODE_OWN.
 */
#ifndef UTILS_DAEMON_CODES_H
#define UTILS_DAEMON_CODES_H

#define IPC_CODE_REDIRECT_OUTPUT 0x4401 /**< ipcCbQelDRedirectOutput() */
#define IPC_CODE_EXIT 0x4402            /**< ipcCbQelDExitHandler() */
#define IPC_CODE_OWN 0x4500             /**< the first code that is free for a daemon's own use */

#endif
