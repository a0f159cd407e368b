/* SPDX-License-Identifier: Apache-2.0 */
/* A program built with 32-bit time_t beside the library that has 64 bits inside. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <utils/clock.h>

int main(void) {
    struct timeval late = {(time_t)0x80000000u, 999999};
    char text[CLOCK_TIME_ROOM], ms_text[CLOCK_MS_TIME_ROOM];
    setenv("TZ", "UTC0", 1);
    int length = get_time(late.tv_sec, text), ms_length = get_ms_time(&late, ms_text);
    printf("%d '%s' %d '%s' %zu\n", length, text, ms_length, ms_text, sizeof(time_t));
    return length != 15 || ms_length != 4 || sizeof(time_t) != 4 ||
           strcmp(ms_text, "Jan 19 03:14:08.000") != 0;
}
