// RAS events: one line per event to the system log and, when it can be opened, to
// "/var/log/rasevt". Nothing is kept between calls; a line is appended by one write, so lines of
// several writers stay whole.
#include "utils/platform/rasevt.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "base/descriptor.h"
#include "base/write_all.h"

namespace {

constexpr const char *kEventFile = "/var/log/rasevt";
constexpr size_t kLineSize = 640;

// One line whatever the event's text holds; `size` includes the room for the newline.
void make_one_line(char *text, size_t length) {
    std::replace_if(
        text, text + length, [](char c) { return c == '\n' || c == '\r'; }, ' ');
    while (length > 0 && text[length - 1] == ' ')
        --length;
    text[length] = '\0';
}

void append_to_event_file(const char *event) {
    utils::Descriptor file(open(
        kEventFile, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0640));
    if (!file)
        return;
    char when[32] = "";
    time_t now = time(nullptr);
    tm local{};
    if (localtime_r(&now, &local) != nullptr)
        strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
    char line[kLineSize + 128];
    int length = snprintf(line, sizeof line, "%s %s[%d] %s\n", when, program_invocation_short_name,
                          static_cast<int>(getpid()), event);
    if (length > 0)
        utils::write_all(file.get(), line, std::min(static_cast<size_t>(length), sizeof line - 1));
}

}  // namespace

int rasevt_log(const char *file, const char *function, int line, int, int, unsigned code, ...) {
    const char *text = "";
    va_list arguments;
    va_start(arguments, code);
    if (code == RASEVT_ASSERT_MESSAGE)
        text = va_arg(arguments, const char *);
    char event[kLineSize];
    int length =
        snprintf(event, sizeof event, "0x%08X %s:%s:%d %s", code, file != nullptr ? file : "",
                 function != nullptr ? function : "", line, text != nullptr ? text : "");
    va_end(arguments);
    if (length < 0)
        return 0;
    make_one_line(event, std::min(static_cast<size_t>(length), sizeof event - 1));
    syslog(LOG_ERR, "%s", event);
    append_to_event_file(event);
    return 0;
}
