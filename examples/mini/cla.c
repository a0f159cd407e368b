/* SPDX-License-Identifier: Apache-2.0 */
/* Takes "-s 2" out of a command line and splits what is left. */
#include <stdio.h>
#include <utils/cla.h>

int main(void) {
    char program[] = "/bin/portenable", option[] = "-s", value[] = "2", port[] = "3/12";
    char *argv[] = {program, option, value, port, NULL};
    int argc = 4, slot = -1;
    int16_t number = 0;
    claFltrEntry options[] = {{'s', "switch", clafGetShort, &number}, {0, NULL, NULL, NULL}};
    if (claFltr(options, &argc, argv) != 0 || clafSlotSlashPort(argc, argv, &slot) != 0)
        return 1;
    printf("%s: switch %d, slot %d, port %s\n", argv[0], number, slot, argv[1]);
    return argc == 2 && number == 2 && slot == 3 ? 0 : 1;
}
