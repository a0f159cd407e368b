/* SPDX-License-Identifier: Apache-2.0 */
/* Lets the watch thread serve a pipe. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <unistd.h>
#include <utils/iot.h>

static int answer[2];

static int serve(int descriptor) {
    char byte;
    return read(descriptor, &byte, 1) == 1 && write(answer[1], &byte, 1) == 1;
}

int main(void) {
    int events[2];
    char byte = 0;
    if (pipe(events) != 0 || pipe(answer) != 0)
        return 1;
    iot_init(NULL);
    if (iot_add(events[0], serve, 1) != 0 || iot_start() != 0)
        return 1;
    if (write(events[1], "!", 1) != 1 || read(answer[0], &byte, 1) != 1)
        return 1;
    printf("the watch thread passed on %c\n", byte);
    return byte == '!' ? 0 : 1;
}
