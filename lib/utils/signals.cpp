// Core file set-up and the handler of ending signals. The program's name is set at start-up, before
// signals are expected; the cleanup callback may change at any time and is a lock-free atomic. The
// handler formats its text by hand and calls nothing that is not async-signal-safe, but for the
// callback and exit().
#include "utils/signals.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/text.h"
#include "base/write_all.h"

namespace utils {
namespace {

constexpr size_t kNameSize = 32;
constexpr size_t kPathSize = 128;
constexpr int kHandled[] = {SIGINT, SIGQUIT, SIGPIPE, QEL_SIGNAL_DUMP_STKFLT, QEL_SIGNAL_DUMP_PROF};

char program[kNameSize] = "Unknown";
std::atomic<void (*)()> cleanup_callback{nullptr};
static_assert(std::atomic<void (*)()>::is_always_lock_free);

// A bounded text that a signal handler may build.
class SafeText {
  public:
    SafeText &operator<<(const char *text) {
        while (*text != '\0' && length_ < sizeof text_ - 1)
            text_[length_++] = *text++;
        return *this;
    }
    SafeText &operator<<(int number) {
        char digits[12];
        size_t at = sizeof digits;
        digits[--at] = '\0';
        unsigned rest =
            number < 0 ? 0u - static_cast<unsigned>(number) : static_cast<unsigned>(number);
        do {
            digits[--at] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (number < 0)
            digits[--at] = '-';
        return *this << digits + at;
    }
    void write_out() const { write_all(STDOUT_FILENO, text_, length_); }
    void write_out_with_terminator() const { write_all(STDOUT_FILENO, text_, length_ + 1); }

  private:
    char text_[256] = {};
    size_t length_ = 0;
};

[[noreturn]] void dump_core(int number) {
    // Nothing may interrupt the dump; 0 and the signals that cannot be ignored are refused.
    for (int n = 0; n <= 31; ++n)
        signal(n, SIG_IGN);
    SafeText text;
    text << "\nApplication '" << program << "'(pid " << static_cast<int>(getpid())
         << ") got exception " << number << ".\nwill dump core under " << QEL_CORE_DIRECTORY
         << "\n";
    text.write_out_with_terminator();
    abort();
}

}  // namespace
}  // namespace utils

int qel_coreenv_set(const char *name) {
    utils::copy_text(utils::program, name);
    rlimit limit{};
    if (int result = getrlimit(RLIMIT_CORE, &limit); result != 0)
        return printf("getrlimit:%s/%d\n", utils::program, result);
    limit.rlim_cur = QEL_CORE_LIMIT;
    if (int result = setrlimit(RLIMIT_CORE, &limit); result != 0)
        return printf("setrlimit:%s/%d\n", utils::program, result);
    char path[utils::kPathSize];
    snprintf(path, sizeof path, "%s/%s", QEL_CORE_DIRECTORY, name != nullptr ? name : "");
    mkdir(path, 0755);
    return chdir(path);
}

int qel_pwddefault(void) {
    return chdir(QEL_CORE_DIRECTORY);
}

void qel_sigcleanup_set(void (*cleanup)(void)) {
    utils::cleanup_callback.store(cleanup, std::memory_order_release);
}

qel_handler qel_sigdefaults(const char *name) {
    qel_coreenv_set(name);
    qel_handler previous = nullptr;
    for (int number : utils::kHandled)
        previous = signal(number, qel_sighandler);
    return previous;
}

void qel_sighandler(int signal) {
    int saved_errno = errno;
    utils::SafeText text;
    text << utils::program << ": (pid=" << static_cast<int>(getpid()) << "), signal=" << signal
         << "\n";
    text.write_out();
    if (signal == SIGPIPE) {
        errno = saved_errno;
        return;
    }
    if (signal == QEL_SIGNAL_DUMP_STKFLT || signal == QEL_SIGNAL_DUMP_PROF)
        utils::dump_core(signal);
    void (*cleanup)() = utils::cleanup_callback.load(std::memory_order_acquire);
    if (cleanup != nullptr)
        cleanup();
    exit(signal);
}
