/* SPDX-License-Identifier: Apache-2.0 */
/* Routes an event to a function and to a message queue. */
#include <stdio.h>
#include <utils/register.h>

enum { LINK_EVENTS = 1, LINK_UP = 10 };

static int32_t classify(void *argument) {
    return *(int32_t *)argument;
}
static const cb_ops link_classifier = {NULL, classify};
static int called;

static int on_link_up(void *argument) {
    (void)argument;
    return called = 1;
}

int main(void) {
    unsigned char event[CB_MESSAGE_SIZE] = {0}, received[CB_MESSAGE_SIZE];
    int32_t what = LINK_UP;
    msgQHandle queue = msgQCreate(10, CB_MESSAGE_SIZE, 0, "events");
    if (queue == NULL ||
        cb_register(LINK_EVENTS, 0, &link_classifier, LINK_UP, on_link_up, queue) != 0)
        return 1;
    cb_dispatch(LINK_EVENTS, 0, event, &what);
    int queued = msgQReceive(queue, received, sizeof received, UTILS_NO_WAIT) == 0;
    cb_unregister(LINK_EVENTS, 0, &link_classifier, LINK_UP);
    msgQDelete(queue);
    printf("called: %d, queued: %d\n", called, queued);
    return called && queued ? 0 : 1;
}
