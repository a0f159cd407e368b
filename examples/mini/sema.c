/* SPDX-License-Identifier: Apache-2.0 */
/* A binary semaphore: given once, taken once, then empty. */
#include <stdio.h>
#include <utils/sema.h>

int main(void) {
    semaHandle ready = semaCreate(SEMA_EMPTY);
    semaGive(ready);
    int first = semaTake(ready, UTILS_WAIT_FOREVER);
    int second = semaTake(ready, 20);
    printf("first take %d, second %s\n", first, second != 0 ? "timed out" : "succeeded");
    semaDelete(ready);
    return first == 0 && second != 0 ? 0 : 1;
}
