/* SPDX-License-Identifier: Apache-2.0 */
/* Ports by the World Wide Name of the switch they lead to. */
#include <stdio.h>
#include <stdlib.h>
#include <utils/hash.h>

int main(void) {
    static const unsigned char core[8] = {0x10, 0, 0, 0, 0x11, 0x22, 0xAB, 0x12};
    static const unsigned char edge[8] = {0x10, 0, 0, 0, 0x11, 0x22, 0xAB, 0x13};
    hash_table *links = create_hash_table(wwn_hash, wwn_cmp);
    uintptr_t *ports = NULL;
    int count = -1;

    if (links != NULL && add_to_hash((uintptr_t)core, 4, links) == 0 &&
        add_to_hash((uintptr_t)core, 7, links) == 0 && add_to_hash((uintptr_t)edge, 9, links) == 0)
        count = get_from_hash((uintptr_t)core, &ports, links);
    for (int i = 0; i < count; ++i)
        printf("port %d leads to the core switch\n", (int)ports[i]);
    free(ports);
    free_hash_handle(links);
    return count == 2 ? EXIT_SUCCESS : EXIT_FAILURE;
}
