/* SPDX-License-Identifier: Apache-2.0 */
/* The WWN of a switch, out of its record and in the form that people read. */
#include <stdio.h>
#include <stdlib.h>
#include <utils/wwn.h>

int main(void) {
    char record[] = "<Switch ISN=\"5\" WWN=\"1000001122AB1234\"><Name>core</Name></Switch>";
    char isn[WWN_TAG_SIZE], wwn[WWN_TAG_SIZE], pretty[WWN_TAG_SIZE], name[32];
    char *cursor = record;

    if (getWwnTagData(&cursor, isn, wwn) != 0 ||
        formatWwn(wwn, pretty, WWN_TEXT_SIZE) != WWN_TEXT_SIZE ||
        getStrElement(name, &cursor, "<Name>", "</Switch>", (int)sizeof name - 1, NULL, "",
                      STR_ELEMENT_ADVANCE) < 1)
        return EXIT_FAILURE;
    printf("switch %s (%s) is %s\n", isn, name, pretty);
    return EXIT_SUCCESS;
}
