/* SPDX-License-Identifier: Apache-2.0 */
/* A list of records that begin with their link. */
#include <stdio.h>
#include <utils/lst.h>

struct port {
    NODE node;
    int number;
};

int main(void) {
    LIST ports;
    struct port a = {.number = 1}, b = {.number = 2};
    lstInit(&ports);
    lstAdd(&ports, &b.node);
    lstInsert(&ports, NULL, &a.node);
    for (NODE *n = lstFirst(&ports); n != NULL; n = lstNext(n))
        printf("port %d\n", ((struct port *)n)->number);
    return lstCount(&ports) == 2 ? 0 : 1;
}
