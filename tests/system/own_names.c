/* SPDX-License-Identifier: Apache-2.0 */
/* A program, linked in each way and once with functions of its own that are named like ours: the library must
   not call them, and both sides must agree about the addresses and variables they share. */
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <utils/hash.h>
#include <utils/signals.h>
#include <utils/task.h>
#include <utils/timer_r.h>

#ifdef OWN_NAMES
/* The program's function has the name alone in common with ours, whose declaration stays out of its
 * way. */
#define OWN(name)                                       \
    void own_##name(int) __asm__(#name);                \
    void own_##name(int ignored) {                      \
        (void)ignored;                                  \
        puts("the library calls the program's " #name); \
        fflush(stdout);                                 \
        abort();                                        \
    }
OWN(timer_callback)
OWN(timer_init_r)
OWN(timer_setulh)
OWN(timer_gettimeout)
OWN(createTimer)
OWN(msgQSend)
OWN(create_hash_table)
OWN(lstAdd)
OWN(ElfHash)
OWN(qel_coreenv_set)
/* The one that programs may define: a table takes it as it is. */
int wwn_cmp(uintptr_t stored, uintptr_t looked_up) {
    return memcmp((const void *)stored, (const void *)looked_up, 8) == 0;
}
#define OURS 0
#else
#define OURS 1
#endif

static int failures;

static void check(const char *what, int holds) {
    printf("%s: %s\n", what, holds ? "yes" : "NO");
    failures += !holds;
}

static unsigned wrapped_hash(uintptr_t key) {
    return wwn_hash(key);
}

/* An index answers from its own copy of a WWN, a walk reads the stored one: it is changed here, against the rules. */
static int answers_from_index(hashFunction hash) {
    char stored[9] = "\x10\x00\x00\x05\x1e\x01\x02\x03", sought[9];
    memcpy(sought, stored, sizeof stored);
    hash_table *(*make)(hashFunction, hashCompare); /* the library's, whatever the program's is */
    *(void **)&make = dlsym(RTLD_NEXT, "create_hash_table");
    hash_table *table = make(hash, wwn_cmp);
    add_to_hash((uintptr_t)stored, 1, table);
    stored[7] = 4;
    uintptr_t *values = NULL;
    int found = get_from_hash((uintptr_t)sought, &values, table);
    free(values);
    free_hash_handle(table);
    return found;
}

int main(void) {
    timer_message event;
    msgQHandle events = msgQCreate(1, sizeof event, 0, "events");
    timerHandle timer = timer_create_r(events, NULL, 0, 0);
    timer_set_r(timer, 50);
    check("the timer fires", msgQReceive(events, &event, sizeof event, 20000) == 0);

    hash_table names = {0}, *copy = NULL;
    LIST buckets[HASH_BUCKETS] = {{0}};
    names.hashFn = name_hash;
    names.cmpFn = name_cmp;
    names.buckets = buckets;
    check("a name is added", add_to_hash((uintptr_t) "portd", 1, &names) == 0);
    check("a table is copied", copy_hash_table(&names, &copy) == 0);
    check("its hash keeps its kind", copy != NULL && copy->hashFn == name_hash);
    check("its comparison keeps its kind", copy != NULL && copy->cmpFn == name_cmp);
    check("our key kind is known", answers_from_index(wwn_hash) == OURS);
    check("the program's is not", answers_from_index(wrapped_hash) == 0);

    qel_sigdefaults("own_names");
    check("the signal handler is ours", signal(SIGINT, SIG_DFL) == qel_sighandler);
    taskInit("own_names");
    check("a variable is one", taskId == getpid());
    fflush(stdout);
    _exit(failures);
}
