// SPDX-License-Identifier: Apache-2.0
// Failed checks: the RAS event, the console report with its backtrace, and the write through a null
// pointer that leaves a core file. Nothing is kept between calls and no lock is taken: switch files
// and console are opened afresh, every text stands on the stack of the failing thread. The crash
// comes in time, whatever the way of the report waits for.
#include "utils/assert.h"

#if __has_include(<execinfo.h>)
#include <execinfo.h>
#endif
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "base/last_words.h"
#include "base/retry.h"
#include "utils/platform/rasevt.h"

namespace utils {
namespace {

constexpr const char *kModule = "assert";
constexpr const char *kConsole = "/dev/console";
constexpr const char *kUnavailable = "unavailable(null pointer)";
constexpr unsigned kAssertsSuppressed = 0x80;
constexpr unsigned kPanicSuppressed = 0x08;
constexpr size_t kMessageSize = 256;
constexpr size_t kValuesSize = 160;  // ten values of ten digits with their separators
constexpr int kFrames = 20;
constexpr int kConsoleMs = 1500;  // for a console that takes its time

#if !__has_include(<execinfo.h>)
// A C library that does not walk the stack: the report has no frames.
int backtrace(void **, int) {
    return 0;
}

void backtrace_symbols_fd(void *const *, int, int) {}
#endif

// One failed check, ready to be printed.
struct Failure {
    const char *kind;
    const char *expr;
    const char *file;
    unsigned line;
    char values[kValuesSize];
};

// The file holds exactly "on\n"; a NUL may follow, and a fifth byte is never looked at.
bool switched_on(const char *path) {
    Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    char text[5] = {};
    return file && read(file.get(), text, sizeof text) > 0 && memcmp(text, "on\n", 4) == 0;
}

unsigned suppression_flags() {
    unsigned flags = switched_on(QEL_SUPPRESS_ASSERTS_FILE) ? kAssertsSuppressed : 0;
    return flags | (switched_on(QEL_SUPPRESS_PANIC_FILE) ? kPanicSuppressed : 0);
}

void format_values(char (&text)[kValuesSize], unsigned count, va_list values) {
    text[0] = '\0';
    size_t at = 0;
    for (unsigned i = 0; i < count; ++i) {
        const char *before = i == 0 ? "         args = " : ", ";
        at += static_cast<size_t>(
            snprintf(text + at, sizeof text - at, "%s%u", before, va_arg(values, unsigned)));
    }
    if (count > 0)
        snprintf(text + at, sizeof text - at, "\n");
}

// An operator at the console sees the failure, too; nobody waits for a console that does not take it.
void echo_on_console(const Failure &failure, void *const *frames, int depth) {
    Descriptor console(open(kConsole, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!console)
        return;
    int64_t end = monotonic_ms() + kConsoleMs;
    char message[kMessageSize];
    snprintf(message, sizeof message,
             "%s - Failed expression: %s,\n         file = %s, line = %u, user mode\n %s",
             failure.kind, failure.expr, failure.file, failure.line, failure.values);
    write_until(end, console.get(), message, strlen(message));
    snprintf(message, sizeof message, "Call backtrace:\n");
    if (write_until(end, console.get(), message, strlen(message)))
        backtrace_symbols_fd(frames, depth, console.get());
}

// Ends the process with SIGSEGV. The compiler may neither know that the pointer is null, or it
// would put a trap in place of the store, nor drop a store that nobody reads.
__attribute__((noinline, no_sanitize("undefined"))) void force_core_file() {
    volatile int *volatile nowhere = nullptr;
    *nowhere = 1;  // NOLINT(clang-analyzer-core.NullDereference): the crash that was asked for
}

int finish(bool fatal, bool crashes, unsigned flags) {
    if (!fatal)
        return 0;
    if (crashes) {
        printf("do_assert: forcing segv to get core file\n\n");
        fflush(stdout);
        force_core_file();
    } else if ((flags & kAssertsSuppressed) == 0) {
        printf("do_assert: no abort, MOX_SUPRESS_PANIC_MODE\n");
    }
    return 0;
}

// The built-in checks of dbg_test_assert(); all of them fail.
struct SelfTest {
    const char *expr;
    const char *file;
    unsigned count;
};

constexpr const char *kTestText = "This is a test string";

constexpr SelfTest kFatalTests[] = {
    {"5 < 3", "dbg_test_assert", 0},
    {"'a' == 'L'", "dbg_test_assert", 1},
    {"(5%3) == 3", "dbg_test_assert", 2},
    {"\"This is a test string\" == \"\"", "dbg_test_assert", 3},
    {"10 == 11", "dbg_test_assert", 4},
    {nullptr, "test null expr", 0},
    {"test null file", nullptr, 0},
};
constexpr int kFatalTestCount = sizeof kFatalTests / sizeof kFatalTests[0];

void show_verify(int result) {
    printf("VERIFY returned *%s*\n", result != 0 ? "TRUE" : "FALSE");
}

void run_verify_tests() {
    for (const SelfTest &test : kFatalTests)
        show_verify(do_assert(test.expr, test.file, QEL_CHECK_INFO(QEL_CHECK_VERIFY, test.count),
                              1u, 2u, 3u, 4u));
    show_verify(QEL_VERIFY(strcmp(kTestText, "This is a test string") == 0));
    show_verify(QEL_VERIFY_VALUES(strlen(kTestText) < 3, strlen(kTestText)));
}

}  // namespace
}  // namespace utils

using namespace utils;

int do_assert(const char *expr, const char *file, unsigned info, ...) {
    KeptErrno error;
    void *frames[kFrames];
    int depth = backtrace(frames, kFrames);
    unsigned flags = suppression_flags();
    bool fatal = (info & QEL_CHECK_ASSERT) != 0;
    bool crashes = fatal && (flags & kPanicSuppressed) == 0;
    if (crashes)
        end_within(kFatalMs, force_core_file);
    unsigned count = info >> QEL_CHECK_COUNT_SHIFT & 0xF;

    Failure failure;
    failure.kind = fatal ? "ASSERT" : "VERIFY";
    failure.expr = expr != nullptr ? expr : kUnavailable;
    failure.file = file != nullptr ? file : kUnavailable;
    failure.line = info & QEL_CHECK_LINE_MASK;
    va_list values;
    va_start(values, info);
    format_values(failure.values, count <= QEL_CHECK_COUNT_MAX ? count : 0, values);
    va_end(values);

    char message[kMessageSize];
    // Kept: the nine blanks and the words "user mode" belong to the message.
    snprintf(message, sizeof message,
             "%s - Failed expression: %s,         file = %s, line = %u, user mode %s", failure.kind,
             failure.expr, failure.file, failure.line, failure.values);
    rasevt_log(kModule, "do_assert", __LINE__, 0, 0, RASEVT_ASSERT_MESSAGE, message);
    // A report always precedes a forced crash.
    if ((flags & kAssertsSuppressed) == 0 || crashes)
        echo_on_console(failure, frames, depth);
    rasevt_log(kModule, "do_assert", __LINE__, 0, 0, fatal ? RASEVT_ASSERT : RASEVT_VERIFY);

    return finish(fatal, crashes, flags);
}

// Kept: the line in a wrapper's report is the wrapper's own.
#define UTILS_WRAPPER(name, kind, result, count, parameters, ...)                      \
    int name parameters {                                                              \
        do_assert(expr, file, QEL_CHECK_INFO(kind, count) __VA_OPT__(, ) __VA_ARGS__); \
        return result;                                                                 \
    }
#define UTILS_ASSERT_N(n, parameters, ...) \
    UTILS_WRAPPER(dbg_assert##n, QEL_CHECK_ASSERT, 1, n, parameters __VA_OPT__(, ) __VA_ARGS__)
#define UTILS_VERIFY_N(n, parameters, ...) \
    UTILS_WRAPPER(dbg_verify##n, QEL_CHECK_VERIFY, 0, n, parameters __VA_OPT__(, ) __VA_ARGS__)
#define HEAD const char *expr, const char *file, unsigned
#define U unsigned

// clang-format off
UTILS_ASSERT_N(0, (HEAD))
UTILS_ASSERT_N(1, (HEAD, U a), a)
UTILS_ASSERT_N(2, (HEAD, U a, U b), a, b)
UTILS_ASSERT_N(3, (HEAD, U a, U b, U c), a, b, c)
UTILS_ASSERT_N(4, (HEAD, U a, U b, U c, U d), a, b, c, d)
UTILS_ASSERT_N(5, (HEAD, U a, U b, U c, U d, U e), a, b, c, d, e)
UTILS_ASSERT_N(6, (HEAD, U a, U b, U c, U d, U e, U f), a, b, c, d, e, f)
UTILS_ASSERT_N(7, (HEAD, U a, U b, U c, U d, U e, U f, U g), a, b, c, d, e, f, g)
UTILS_ASSERT_N(8, (HEAD, U a, U b, U c, U d, U e, U f, U g, U h), a, b, c, d, e, f, g, h)
UTILS_ASSERT_N(9, (HEAD, U a, U b, U c, U d, U e, U f, U g, U h, U i), a, b, c, d, e, f, g, h, i)
UTILS_ASSERT_N(10, (HEAD, U a, U b, U c, U d, U e, U f, U g, U h, U i, U j), a, b, c, d, e, f, g, h, i, j)
UTILS_VERIFY_N(0, (HEAD))
UTILS_VERIFY_N(1, (HEAD, U a), a)
UTILS_VERIFY_N(2, (HEAD, U a, U b), a, b)
UTILS_VERIFY_N(3, (HEAD, U a, U b, U c), a, b, c)
UTILS_VERIFY_N(4, (HEAD, U a, U b, U c, U d), a, b, c, d)
UTILS_VERIFY_N(5, (HEAD, U a, U b, U c, U d, U e), a, b, c, d, e)
UTILS_VERIFY_N(6, (HEAD, U a, U b, U c, U d, U e, U f), a, b, c, d, e, f)
UTILS_VERIFY_N(7, (HEAD, U a, U b, U c, U d, U e, U f, U g), a, b, c, d, e, f, g)
UTILS_VERIFY_N(8, (HEAD, U a, U b, U c, U d, U e, U f, U g, U h), a, b, c, d, e, f, g, h)
UTILS_VERIFY_N(9, (HEAD, U a, U b, U c, U d, U e, U f, U g, U h, U i), a, b, c, d, e, f, g, h, i)
UTILS_VERIFY_N(10, (HEAD, U a, U b, U c, U d, U e, U f, U g, U h, U i, U j), a, b, c, d, e, f, g, h, i, j)
// clang-format on

int dbg_test_assert(int count) {
    printf("user dbg_test_assert entry: count = %d\n", count);
    if (count >= 0 && count < kFatalTestCount) {
        const SelfTest &test = kFatalTests[count];
        do_assert(test.expr, test.file, QEL_CHECK_INFO(QEL_CHECK_ASSERT, test.count), 1u, 2u, 3u,
                  4u);
    } else if (count == kFatalTestCount) {
        run_verify_tests();
    }
    printf("user dbg_test_assert exit: count = %d\n", count);
    return 0;
}
