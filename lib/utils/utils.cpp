// SPDX-License-Identifier: Apache-2.0
// Console output and switch files. Nothing is kept between calls: console and switch files are
// opened afresh each time and closed before the call returns.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "utils/console.h"

namespace utils {
namespace {

constexpr const char *kModule = "utils";
constexpr const char *kConsole = "/dev/console";
constexpr const char *kConsoleLines[] = {"/dev/console", "/dev/ttyS0", "/dev/ttyS1"};
constexpr size_t kPathSize = 4351;
constexpr size_t kSwitchSize = 4096;

// A stream as fopen() makes it in mode "w",
// that neither creates the device nor becomes the controlling terminal.
FILE *open_console() {
    Descriptor console(open(kConsole, O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOCTTY));
    FILE *stream = console ? fdopen(console.get(), "w") : nullptr;
    if (stream != nullptr)
        console.release();
    return stream;
}

UTILS_PRINTF(1, 0) int print_on_console(const char *format, va_list values) {
    FILE *console = open_console();
    if (console == nullptr)
        return 0;
    vfprintf(console, format, values);
    fflush(console);
    if (fclose(console) != 0)
        return fprintf(stderr, "fclose failed %s %d errno %d\n", kModule, __LINE__, errno);
    return 0;
}

bool output_is_console() {
    char name[64];
    if (ttyname_r(STDOUT_FILENO, name, sizeof name) != 0)
        return false;
    for (const char *line : kConsoleLines) {
        if (strcmp(name, line) == 0)
            return true;
    }
    return false;
}

}  // namespace
}  // namespace utils

using namespace utils;

int console_printf(const char *format, ...) {
    va_list values;
    va_start(values, format);
    int result = print_on_console(format, values);
    va_end(values);
    return result;
}

int verbose_printf(const char *format, ...) {
    va_list values;
    va_start(values, format);
    print_on_console(format, values);
    va_end(values);
    if (output_is_console())
        return 0;
    va_start(values, format);
    int result = vprintf(format, values);
    va_end(values);
    return result;
}

int check_config_onoff(const char *name) {
    if (name == nullptr)
        return 0;
    char path[kPathSize];
    int length = snprintf(path, sizeof path, "%s/%s", CONFIG_SWITCH_DIRECTORY, name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path)
        return 1;
    // Kept: a switch file that is missing means on.
    Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return 1;
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || status.st_size == 0)
        return 0;
    char text[kSwitchSize] = {};
    return read(file.get(), text, sizeof text) > 0 && strncasecmp(text, "on", 2) == 0 ? 1 : 0;
}
