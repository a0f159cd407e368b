/* SPDX-License-Identifier: Apache-2.0 */
/* A position-dependent program with functions of its own that are named like ours: the library must
   not call them, and both sides must agree about the addresses and variables they share. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <utils/hash.h>
#include <utils/signals.h>
#include <utils/task.h>
#include <utils/timer_r.h>

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

static int failures;

static void check(const char *what, int holds) {
    printf("%s: %s\n", what, holds ? "yes" : "NO");
    failures += !holds;
}

int main(void) {
    timer_message event;
    msgQHandle events = msgQCreate(1, sizeof event, 0, "events");
    timerHandle timer = timer_create_r(events, NULL, 0, 0);
    timer_set_r(timer, 50);
    check("the timer fires", msgQReceive(events, &event, sizeof event, 10000) == 0);

    hash_table names = {0}, *copy = NULL;
    LIST buckets[HASH_BUCKETS] = {{0}};
    names.hashFn = name_hash;
    names.cmpFn = name_cmp;
    names.buckets = buckets;
    check("a name is added", add_to_hash((uintptr_t) "portd", 1, &names) == 0);
    check("a table is copied", copy_hash_table(&names, &copy) == 0);
    check("keys keep their kind",
          copy != NULL && copy->hashFn == name_hash && copy->cmpFn == name_cmp);

    qel_sigdefaults("own_names");
    check("the signal handler is ours", signal(SIGINT, SIG_DFL) == qel_sighandler);
    taskInit("own_names");
    check("a variable is one", taskId == getpid());
    fflush(stdout);
    _exit(failures);
}
