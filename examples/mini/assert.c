/* SPDX-License-Identifier: Apache-2.0 */
/* A check that reports to the RAS event log and the console and lets its caller recover. */
#include <utils/assert.h>

static int set_speed(int port, int speed) {
    if (!QEL_VERIFY_VALUES(speed > 0 && speed <= 16, port, speed))
        return -1; /* reported, with both values */
    return 0;
}

int main(void) {
    return set_speed(3, 8) == 0 && set_speed(3, 17) == -1 ? 0 : 1;
}
