// SPDX-License-Identifier: Apache-2.0
// Core file set-up and the handler of ending signals. The program's name is set at start-up, before
// signals are expected; the cleanup callback may change at any time and is a lock-free atomic. The
// handler formats its text by hand and calls nothing that is not async-signal-safe, but for the
// callback and exit(). An end that somebody ordered is bounded up to the C library's last flush.
#include "utils/signals.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/last_words.h"
#include "base/retry.h"
#include "base/text.h"
#include "base/trusted.h"
#include "end_process.h"

namespace utils {
namespace {

constexpr size_t kNameSize = 32;
constexpr size_t kPathSize = 128;
constexpr int kHandled[] = {SIGINT, SIGQUIT, SIGPIPE, QEL_SIGNAL_DUMP_STKFLT, QEL_SIGNAL_DUMP_PROF};

char program[kNameSize] = "Unknown";
std::atomic<void (*)()> cleanup_callback{nullptr};
static_assert(std::atomic<void (*)()>::is_always_lock_free);

// The process that is being ended, not a child that it makes meanwhile; what exit() has come to.
std::atomic<pid_t> ending{0};
std::atomic<int> end_status{0};
std::atomic<bool> only_output_is_left{false};

void bound_last_flush() {
    end_within(kLastFlushMs, [] { _exit(end_status.load()); });
}

// Runs behind the program's exit functions and before the C library writes out its streams.
__attribute__((destructor)) void before_the_last_flush() {
    only_output_is_left.store(true);
    if (ending.load() == getpid())
        bound_last_flush();
}

// Writes a standard stream out for the last time, until the monotonic millisecond `end`. What finds
// no room is dropped, and so is what exit functions add then; who holds the stream's lock for that
// long keeps it from nobody any more.
void settle(FILE *stream, int64_t end) {
    HeldSignal sigpipe(SIGPIPE);
    bool locked = ftrylockfile(stream) == 0;
    for (; !locked && monotonic_ms() < end; locked = ftrylockfile(stream) == 0)
        poll(nullptr, 0, 5);
    bool written = false;
    if (locked) {
        int64_t left = end - monotonic_ms();
        int timer = start_timer(left > 0 ? left : 0, 50, [] {});
        errno = 0;
        written = fflush_unlocked(stream) == 0;
        if (errno == EPIPE)
            sigpipe.raised();
        stop_timer(timer);
        funlockfile(stream);
    } else {
        __fsetlocking(stream, FSETLOCKING_BYCALLER);
    }
    if (written)
        return;
    Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (nowhere)
        dup2(nowhere.get(), fileno_unlocked(stream));
}

// Makes the directory below "/core_files" the working directory, if nobody else has a hand in it.
// Everybody may add names to the common directory, so links below it are not followed. 0 or -1.
int enter_core_directory(char *name) {
    Descriptor at(open_trusted_directory(AT_FDCWD, QEL_CORE_DIRECTORY, 0));
    for (char *part = name; at && part != nullptr;) {
        char *rest = strchr(part, '/');
        if (rest != nullptr)
            *rest++ = '\0';
        else if (*part != '\0')
            mkdirat(at.get(), part, 0755);
        if (*part != '\0')
            at.reset(open_trusted_directory(at.get(), part, O_NOFOLLOW));
        part = rest;
    }
    return at ? fchdir(at.get()) : -1;
}

[[noreturn]] void dump_core(int number, int64_t report_end) {
    // Nothing may interrupt the dump; 0 and the signals that cannot be ignored are refused.
    for (int n = 0; n <= 31; ++n)
        signal(n, SIG_IGN);
    SafeText text;
    text << "\nApplication '" << program << "'(pid " << static_cast<int>(getpid())
         << ") got exception " << number << ".\nwill dump core under " << QEL_CORE_DIRECTORY
         << "\n";
    // Kept: the NUL behind the message is written, too.
    write_until(report_end, STDOUT_FILENO, text.text(), text.length() + 1);
    abort_within(kLastFlushMs);
    abort();
}

// Whether this call is the first to end the process.
bool begin_to_end() {
    pid_t process = getpid();
    return ending.exchange(process) != process;
}

}  // namespace

void end_process(int status) {
    ending.store(getpid());
    end_status.store(status);
    int64_t end = monotonic_ms() + kExitMs;
    settle(stdout, end);
    settle(stderr, end);
    // The thread that hangs in the last flush of an exit() may be this one.
    if (only_output_is_left.load())
        bound_last_flush();
    exit(status);
}

}  // namespace utils

using namespace utils;

int qel_coreenv_set(const char *name) {
    copy_text(program, name);
    rlimit limit{};
    if (int result = getrlimit(RLIMIT_CORE, &limit); result != 0)
        return printf("getrlimit:%s/%d\n", program, result);
    limit.rlim_cur = QEL_CORE_LIMIT;
    if (int result = setrlimit(RLIMIT_CORE, &limit); result != 0)
        return printf("setrlimit:%s/%d\n", program, result);
    char path[kPathSize];
    snprintf(path, sizeof path, "%s/%s", QEL_CORE_DIRECTORY, name != nullptr ? name : "");
    return enter_core_directory(path + sizeof QEL_CORE_DIRECTORY);
}

int qel_pwddefault(void) {
    char common[] = "";
    return enter_core_directory(common);
}

void qel_sigcleanup_set(void (*cleanup)(void)) {
    cleanup_callback.store(cleanup, std::memory_order_release);
}

qel_handler qel_sigdefaults(const char *name) {
    qel_coreenv_set(name);
    qel_handler previous = nullptr;
    for (int number : kHandled)
        previous = signal(number, qel_sighandler);
    return previous;
}

void qel_sighandler(int signal) {
    KeptErrno error;
    bool dumps = signal == QEL_SIGNAL_DUMP_STKFLT || signal == QEL_SIGNAL_DUMP_PROF;
    bool goes_on = signal == SIGPIPE || (!dumps && !begin_to_end());
    int64_t report_end = monotonic_ms() + (goes_on ? kReportMs : kEndReportMs);
    SafeText text;
    text << program << ": (pid=" << static_cast<int>(getpid()) << "), signal=" << signal << "\n";
    write_until(report_end, STDOUT_FILENO, text.text(), text.length());
    if (goes_on)
        return;
    if (dumps)
        dump_core(signal, report_end);
    void (*cleanup)() = cleanup_callback.load(std::memory_order_acquire);
    if (cleanup != nullptr)
        cleanup();
    end_process(signal);
}
