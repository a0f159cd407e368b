/* SPDX-License-Identifier: Apache-2.0 */
/* Asks for one number; here the answers come from a file: the first is out of range. */
#include <stdio.h>
#include <utils/getval.h>

int main(void) {
    FILE *answers = fopen("answers", "w");
    if (answers == NULL)
        return 1;
    fputs("99\n12\n", answers);
    if (fclose(answers) != 0 || freopen("answers", "r", stdin) == NULL)
        return 1;
    int32_t port = 7;
    getvalDesc desc = {GETVAL_INT, &port, 0, 15, 1};
    int changed = getval("Port", &desc);
    printf("\nport %d, %s\n", (int)port, changed == 1 ? "changed" : "as before");
    return changed == 1 && port == 12 ? 0 : 1;
}
