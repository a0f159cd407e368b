/* SPDX-License-Identifier: Apache-2.0 */
/* A message for the operator, unless a switch file turns it off. */
#include <utils/console.h>

int main(void) {
    if (check_config_onoff("announce_start") == 0)
        return 0;
    console_printf("mini: this line is for the console only\n");
    return verbose_printf("mini: started\n") >= 0 ? 0 : 1;
}
