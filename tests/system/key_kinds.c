/* SPDX-License-Identifier: Apache-2.0 */
/* Whether hash tables know the key kinds in this program, however it is linked. An index answers
 * from its own copy of a WWN, a walk reads the stored one: it is changed here, against the rules.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <utils/hash.h>

#ifdef OWN_COMPARE /* by the name of the library's */
int wwn_cmp(uintptr_t stored, uintptr_t looked_up) {
    return memcmp((const void *)stored, (const void *)looked_up, 8) == 0;
}
#define KNOWN 0
#else
#define KNOWN 1
#endif

static unsigned wrapped_hash(uintptr_t key) {
    return wwn_hash(key);
}

static int answers_from_index(hashFunction hash) {
    char stored[9] = "\x10\x00\x00\x05\x1e\x01\x02\x03", sought[9];
    memcpy(sought, stored, sizeof stored);
    hash_table *table = create_hash_table(hash, wwn_cmp);
    add_to_hash((uintptr_t)stored, 1, table);
    stored[7] = 4;
    uintptr_t *values = NULL;
    int found = get_from_hash((uintptr_t)sought, &values, table);
    free(values);
    free_hash_handle(table);
    return found;
}

int main(void) {
    int built_in = answers_from_index(wwn_hash), wrapped = answers_from_index(wrapped_hash);
    printf("key_kinds: by index: built-in functions %d (expected %d), others %d (expected 0)\n",
           built_in, KNOWN, wrapped);
    return built_in != KNOWN || wrapped != 0;
}
