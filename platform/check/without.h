/* SPDX-License-Identifier: Apache-2.0 */
/* What a platform without contexts, I/O loop, events and daemons to send to answers. For one source file each of a
   product or of a check; copy what is yours. */
#ifndef UTILS_PLATFORM_WITHOUT_H
#define UTILS_PLATFORM_WITHOUT_H

#include <errno.h>
#include <utils/platform/context.h>
#include <utils/platform/ioss.h>
#include <utils/platform/ipc.h>
#include <utils/platform/rasevt.h>

int ep_context(const void *from, void *to) {
    (void)from, (void)to;
    return 0;
}
unsigned sizeof_geps(void) {
    return 0;
}
int ioss_create(void *arg, ioss_poll poll, uintptr_t a, uintptr_t b, uintptr_t c) {
    (void)arg, (void)poll, (void)a, (void)b, (void)c;
    return -1;
}
int ioss_free(void *handle) {
    (void)handle;
    return -1;
}
int ipcSend(void *address, int code, const void *data, uint32_t length, const uint32_t timeout[2]) {
    (void)address, (void)code, (void)data, (void)length, (void)timeout;
    return -ECONNREFUSED;
}
int rasevt_log(const char *file, const char *function, int line, int reserved1, int reserved2,
               unsigned code, ...) {
    (void)file, (void)function, (void)line, (void)reserved1, (void)reserved2, (void)code;
    return 0;
}

#endif
