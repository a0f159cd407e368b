/* SPDX-License-Identifier: Apache-2.0 */
/* Packs a record and a text into one block and reads them back as a receiver does. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <utils/ipc_args.h>

int main(void) {
    unsigned char port[4] = {0, 0, 0, 7};
    char name[] = "uplink";
    qelIpcArg pieces[] = {{port, sizeof port}, {name, sizeof name}};
    qelIpcArgs args = {pieces, 2};
    qelIpcArgBlock *block;
    int length = qelIpcArgsEncode(&args, &block);
    if (length < 0)
        return 1;
    /* ... ipcSendRcv() carries the block; in the receiver: */
    int result = qelIpcArgsDecode(block);
    const char *text = (const char *)qelIpcArgsData(block) + sizeof port;
    printf("%d bytes, port %d, name %s\n", length, port[3], text);
    int same = result == 0 && strcmp(text, name) == 0;
    qelIpcArgsDestroy(block);
    free(block);
    return same ? 0 : 1;
}
