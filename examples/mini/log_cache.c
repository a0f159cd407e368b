/* SPDX-License-Identifier: Apache-2.0 */
/* Recent log lines in memory, written to "/tmp/mini.log" when somebody asks for them. */
#include <stdio.h>
#include <utils/log_cache.h>

int main(void) {
    if (log_cache_init("mini.log") != 0)
        return 1;
    for (int port = 0; port < 3; ++port)
        log_cache_write("port %d is up\n", port);
    static char recent[LOG_CACHE_SIZE_DEFAULT + 3];
    int length = log_cache_dump_buf(recent, sizeof recent);
    if (length < 0)
        return 1;
    printf("%s", recent);
    return log_cache_dump();
}
