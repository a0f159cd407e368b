/* SPDX-License-Identifier: Apache-2.0 */
/* A daemon's start: core files go to "/core_files/mini", SIGINT ends it after a cleanup. */
#include <signal.h>
#include <stdlib.h>
#include <utils/signals.h>

static void clean_up(void) {
    _Exit(0);
}

int main(void) {
    qel_sigdefaults("mini");
    qel_sigcleanup_set(clean_up);
    raise(SIGINT);
    return 1; /* not reached */
}
