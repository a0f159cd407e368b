/* SPDX-License-Identifier: Apache-2.0 */
/* An event log that other processes can read, and that outlives this one if it dies. */
#include <stdio.h>
#include <utils/evlog.h>

int main(void) {
    qel_evlog_db db;
    if (qel_evlog_init(&db) == -1)
        printf("no system device here; the logs are trace sections\n");
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 100, "port events", "ports");
    if (log == NULL)
        return 1;
    for (int port = 0; port < 3; ++port)
        qel_evlog(log, "port %d is up\n", port);
    qel_evlog_dump(stdout, qel_evlog_findByShortCut(&db, "PORTS"), 0);
    return qel_evlog_free(&db);
}
