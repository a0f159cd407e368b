// SPDX-License-Identifier: Apache-2.0
// How a daemon ends. SIGTERM, SIGINT and SIGHUP ask for the orderly end; the signals of
// utils/signals.h keep what they do there; every other signal that would end the process removes
// the daemon's files and is raised again, with what it was raised for, so that a core file shows
// the same. The handlers make async-signal-safe calls only. Each thread needs a stack of its own
// for the case that its usual one has overflowed.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "base/descriptor.h"
#include "base/last_words.h"
#include "base/retry.h"
#include "base/write_all.h"
#include "state.h"
#include "utils/signals.h"

namespace utils::service {
namespace {

constexpr int kStopSignals[] = {SIGTERM, SIGINT, SIGHUP};
constexpr int kHarmless[] = {SIGCHLD, SIGCONT, SIGTSTP, SIGTTIN, SIGTTOU, SIGURG, SIGWINCH};
constexpr size_t kStackSize = 64 * 1024;

constexpr int kStopping = 0x100;  // beside the exit status, which has eight bits

std::atomic<int> ending{0};
pthread_key_t stacks;
bool has_key = false;

void on_stop(int) {
    daemon_stop(0);
}

void on_dump(int number) {
    remove_files();
    qel_sighandler(number);
}

// Raises the signal once more, now for the kernel: it comes when the handler has returned. The one
// that tells of a fault keeps its address.
void on_fatal(int number, siginfo_t *why, void *) {
    KeptErrno error;
    remove_files();
    signal(number, SIG_DFL);
    if (syscall(SYS_rt_tgsigqueueinfo, getpid(), syscall(SYS_gettid), number, why) != 0)
        raise(number);
}

bool is_any_of(int number, const int *list, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (list[i] == number)
            return true;
    }
    return false;
}

template <size_t count>
bool is_any_of(int number, const int (&list)[count]) {
    return is_any_of(number, list, count);
}

// Signals that the program handles or ignores stay the program's.
void catch_fatal_signals() {
    for (int number = 1; number <= SIGRTMAX; ++number) {
        struct sigaction now {};
        if (is_any_of(number, kStopSignals) || is_any_of(number, kHarmless) ||
            sigaction(number, nullptr, &now) != 0 || (now.sa_flags & SA_SIGINFO) != 0 ||
            now.sa_handler != SIG_DFL)
            continue;
        now = {};
        now.sa_sigaction = on_fatal;
        now.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigfillset(&now.sa_mask);
        sigaction(number, &now, nullptr);  // SIGKILL and SIGSTOP are refused
    }
}

// What nohup(1) has done stays.
bool is_ignored(int number) {
    struct sigaction now {};
    return sigaction(number, nullptr, &now) == 0 && (now.sa_flags & SA_SIGINFO) == 0 &&
           now.sa_handler == SIG_IGN;
}

void take(int number, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(number, &action, nullptr);
}

// Whoever started us may have blocked what is to end us.
void unblock_signals() {
    sigset_t set;
    sigfillset(&set);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// Event logs are shared mappings of files, which core files leave out unless bit 3 is set.
void put_logs_into_cores() {
    constexpr unsigned long kSharedFiles = 1UL << 3;
    char text[32] = {};
    Descriptor file(open("/proc/self/coredump_filter", O_RDWR | O_CLOEXEC));
    if (!file || read(file.get(), text, sizeof text - 1) <= 0)
        return;
    int length = snprintf(text, sizeof text, "0x%lx\n", strtoul(text, nullptr, 16) | kSharedFiles);
    write_all(file.get(), text, static_cast<size_t>(length));
}

void release_stack(void *stack) {
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
    munmap(stack, kStackSize);
}

// Behind the exit functions only the C library's flush is left, for which nobody may have to read.
#ifdef __GLIBC__
void bound_last_flush(int code, void *process) {
    if (getpid() != static_cast<pid_t>(reinterpret_cast<intptr_t>(process)) || !stop_requested())
        return;
    ending.store(kStopping | (code & 0xFF));
    end_within(kExitMs, [] { _exit(stop_status()); });
}
#endif

}  // namespace

// From here on every end short of SIGKILL leaves nothing behind.
void prepare_signals() {
    has_key = pthread_key_create(&stacks, release_stack) == 0;
    qel_sigdefaults(name);
    qel_sigcleanup_set(remove_files);
    for (int number : kStopSignals) {
        if (number != SIGHUP || !is_ignored(number))
            take(number, on_stop, SA_RESTART);
    }
    take(QEL_SIGNAL_DUMP_STKFLT, on_dump, SA_ONSTACK);
    take(QEL_SIGNAL_DUMP_PROF, on_dump, SA_ONSTACK);
    catch_fatal_signals();
    daemon_guard_thread();
    unblock_signals();
    put_logs_into_cores();
#ifdef __GLIBC__
    on_exit(bound_last_flush, reinterpret_cast<void *>(static_cast<intptr_t>(getpid())));
#endif
}

bool stop_requested() {
    return ending.load() != 0;
}

int stop_status() {
    return ending.load() & 0xFF;
}

}  // namespace utils::service

using namespace utils;
using namespace utils::service;

void daemon_stop(int code) {
    KeptErrno error;
    int none = 0;
    ending.compare_exchange_strong(none, kStopping | (code & 0xFF));
    kick_watcher();
}

int daemon_guard_thread(void) {
    stack_t old{};
    if (!has_key || (sigaltstack(nullptr, &old) == 0 && (old.ss_flags & SS_DISABLE) == 0))
        return 0;
    void *stack = mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED)
        return UTILS_ENOMEM;
    stack_t own{};
    own.ss_sp = stack;
    own.ss_size = kStackSize;
    if (sigaltstack(&own, nullptr) != 0 || pthread_setspecific(stacks, stack) != 0) {
        release_stack(stack);
        return UTILS_ENOMEM;
    }
    return 0;
}
