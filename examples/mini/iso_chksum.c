/* SPDX-License-Identifier: Apache-2.0 */
/* A data unit with its checksum in bytes 2 and 3, before and after a byte is damaged. */
#include <stdio.h>
#include <stdlib.h>
#include <utils/iso_chksum.h>

int main(void) {
    unsigned char unit[] = {0x83, 0x1B, 0, 0, 'l', 'i', 'n', 'k', ' ', 'u', 'p'};
    int fresh = iszero(unit + 2, 2);
    int good, damaged;

    computeIsoChksum(unit, sizeof unit, unit + 2);
    good = isoChksumOk(unit, sizeof unit, unit + 2);
    unit[5] ^= 0x10;
    damaged = isoChksumOk(unit, sizeof unit, unit + 2);
    printf("checksum %02x %02x, accepted %d, damaged unit accepted %d\n", unit[2], unit[3], good,
           damaged);
    return fresh && good && !damaged ? EXIT_SUCCESS : EXIT_FAILURE;
}
