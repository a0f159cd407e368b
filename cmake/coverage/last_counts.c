/* SPDX-License-Identifier: Apache-2.0 */
// Writes the counters of all libraries before a process ends by _exit() or by a signal that it does
// not handle. The program sees no difference: where it asks for the default action of a signal, or
// about it, ours stands in. Before SIGKILL a child is asked to write its counters; one that is killed
// by another process takes its counts along.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <setjmp.h>
#include <signal.h>
#include <stddef.h>
#include <sys/wait.h>
#include <unistd.h>

enum { MOST = 8 };
static void (*dumps[MOST])(void);
static size_t count;

void utils_coverage_enroll(void (*dump)(void));
void utils_coverage_enroll(void (*dump)(void)) {
    if (count < MOST)
        dumps[count++] = dump;
}

// Writing the counters takes memory, and faults where there is none: the process goes on to its end without.
static _Thread_local sigjmp_buf given_up;
static _Thread_local volatile sig_atomic_t dumping;

// The counters are written by the functions that a test makes fail.
static void dump_all(void) {
    if (dumping || sigsetjmp(given_up, 1) != 0)
        return;
    dumping = 1;
    void (*reset)(void) = (void (*)(void))dlsym(RTLD_DEFAULT, "utils_testing_reset");
    if (reset != NULL)
        reset();
    for (size_t i = 0; i < count; ++i)
        dumps[i]();
    dumping = 0;
}

static void *next(const char *symbol) {
    return dlsym(RTLD_NEXT, symbol);
}

void _exit(int status) {
    dump_all();
    ((void (*)(int))next("_exit"))(status);
    __builtin_unreachable();
}

// The C library's restores the default action by itself.
void abort(void) {
    dump_all();
    ((void (*)(void))next("abort"))();
    __builtin_unreachable();
}

// Stops the process, for its parent to see that it is done.
static void dump_and_stop(int number) {
    (void)number;
    dump_all();
    raise(SIGSTOP);
}

int kill(pid_t pid, int number) {
    int (*next_kill)(pid_t, int) = (int (*)(pid_t, int))next("kill");
    if (number == SIGKILL && pid == getpid())
        dump_all();
    if (number == SIGKILL && pid > 0 && pid != getpid()) {
        siginfo_t seen = {.si_pid = 0};
        next_kill(pid, SIGRTMAX);
        for (int i = 0; i < 500 && seen.si_pid == 0; ++i) {
            if (waitid(P_PID, (id_t)pid, &seen, WSTOPPED | WEXITED | WNOHANG | WNOWAIT) != 0)
                break;
            usleep(1000);
        }
    }
    return next_kill(pid, number);
}

typedef int action_function(int, const struct sigaction *, struct sigaction *);

static void dump_and_die(int number) {
    struct sigaction plain = {.sa_handler = SIG_DFL};
    if (dumping && (number == SIGSEGV || number == SIGBUS))
        siglongjmp(given_up, 1);
    dump_all();
    ((action_function *)next("sigaction"))(number, &plain, NULL);
    raise(number);  // it comes when this handler returns
}

// Whether a process that does not handle the signal ends by it, and may handle it.
static int is_kept(int number) {
    static const int others[] = {SIGKILL, SIGSTOP, SIGTSTP, SIGTTIN, SIGTTOU,
                                 SIGCHLD, SIGCONT, SIGURG,  SIGWINCH};
    for (size_t i = 0; i < sizeof others / sizeof *others; ++i) {
        if (number == others[i])
            return 0;
    }
    return number < 32 || number >= SIGRTMIN;
}

int sigaction(int number, const struct sigaction *wanted, struct sigaction *before) {
    struct sigaction ours = {.sa_handler = dump_and_die};
    if (number == SIGRTMAX)
        wanted = NULL;
    if (wanted != NULL && is_kept(number) && wanted->sa_handler == SIG_DFL)
        wanted = &ours;
    int result = ((action_function *)next("sigaction"))(number, wanted, before);
    if (result == 0 && before != NULL &&
        (before->sa_handler == dump_and_die || before->sa_handler == dump_and_stop))
        before->sa_handler = SIG_DFL;
    return result;
}

sighandler_t signal(int number, sighandler_t handler) {
    struct sigaction wanted = {.sa_handler = handler, .sa_flags = SA_RESTART}, before;
    return sigaction(number, &wanted, &before) == 0 ? before.sa_handler : SIG_ERR;
}

__attribute__((constructor)) static void begin(void) {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction now;
        if (is_kept(number) && sigaction(number, NULL, &now) == 0 && now.sa_handler == SIG_DFL)
            sigaction(number, &now, NULL);
    }
    struct sigaction stop = {.sa_handler = dump_and_stop, .sa_flags = SA_RESTART};
    ((action_function *)next("sigaction"))(SIGRTMAX, &stop, NULL);
}
