/* SPDX-License-Identifier: Apache-2.0 */
/* A message goes through a queue by value. */
#include <stdio.h>
#include <utils/msgq.h>

int main(void) {
    char text[16] = "";
    msgQHandle queue = msgQCreate(4, sizeof text, 0, "letters");
    msgQSend(queue, "hello", 6);
    int taken = msgQReceive(queue, text, sizeof text, UTILS_NO_WAIT);
    printf("%s\n", text);
    msgQDelete(queue);
    return taken;
}
