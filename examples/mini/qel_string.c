/* SPDX-License-Identifier: Apache-2.0 */
/* A line of text that grows as its parts become known. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <utils/qel_string.h>

int main(void) {
    qelString *line = qelStringInit(0, 0);
    int ok;

    if (line == NULL)
        return EXIT_FAILURE;
    line->ops->set(line, "online:");
    for (int port = 0; port < 4; ++port)
        line->ops->appendf(line, " %d/%d", 1, port);
    puts(line->ops->get(line));
    ok = strcmp(line->ops->get(line), "online: 1/0 1/1 1/2 1/3") == 0;
    line->ops->free(line);
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
