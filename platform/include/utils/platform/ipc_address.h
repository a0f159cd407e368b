/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file ipc_address.h
 * @brief Platform: the address of a daemon.
 *
 * A product whose addresses look otherwise puts a header of this name in front of this one
 * (UTILS_PLATFORM_INCLUDE). Its `ipc_address` keeps the integers `node` and `switch_no` and the
 * text `name`; the library fills these three and leaves everything else zero.
 */
#ifndef UTILS_PLATFORM_IPC_ADDRESS_H
#define UTILS_PLATFORM_IPC_ADDRESS_H

#include <stdint.h>

#define IPC_NAME_SIZE 64 /**< room for a daemon's name and its terminator in an address */

/** Where a request goes; native byte order, it never leaves the machine. */
typedef struct ipc_address {
    uint16_t node;            /**< control processor, 5 or 6 */
    uint16_t switch_no;       /**< logical switch */
    char name[IPC_NAME_SIZE]; /**< the daemon's name */
} ipc_address;

#endif
