/* SPDX-License-Identifier: Apache-2.0 */
/* Scans single-letter options with a callback. */
#include <stdio.h>
#include <utils/getopt.h>

static int option(void *verbose, qelGetOptState *state) {
    switch (qelGetOpt_opt(state)) {
        case 'v':
            ++*(int *)verbose;
            return 0;
        case 'o':
            printf("output to %s\n", qelGetOpt_arg(state));
            return 0;
        default:
            return qelGetOpt_ind(state);
    }
}

int main(void) {
    char program[] = "tool", cluster[] = "-vvo", file[] = "log", rest[] = "rest";
    char *argv[] = {program, cluster, file, rest, NULL};
    int verbose = 0;
    int first = qelGetOpt(4, argv, "vo:", option, &verbose);
    printf("verbose %d, then %s\n", verbose, argv[first]);
    return verbose == 2 && first == 3 ? 0 : 1;
}
