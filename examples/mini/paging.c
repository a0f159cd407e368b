/* SPDX-License-Identifier: Apache-2.0 */
/* Dumps a record and prints a 64-bit number of two halves. */
#include <stdio.h>
#include <string.h>
#include <utils/paging.h>

int main(void) {
    char record[16] = "switch 2 port 7";
    memDump(record, sizeof record, 1);
    char number[SPRINT64_ROOM];
    int length = sprint64(number, 1, 0, 10);
    printf("2^32 is %s, or ", number);
    print64(1, 0, 16);
    printf("; %d\n", str2num("0x1A"));
    return length == 10 && strequ(number, "4294967296") ? 0 : 1;
}
