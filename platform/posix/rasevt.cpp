// SPDX-License-Identifier: Apache-2.0
// RAS events: one line per event to the system log and, when it can be opened, to
// "/var/log/rasevt". Nothing is kept between calls; a line is appended by one write, so lines of
// several writers stay whole. The system log is reached without syslog(), which waits for a log
// daemon that does not read, with a lock that every other thread then waits for.
#include "utils/platform/rasevt.h"

#include <fcntl.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "base/descriptor.h"
#include "base/last_words.h"
#include "base/local_time.h"
#include "base/trusted.h"

namespace utils {
namespace {

constexpr const char *kEventFile = "/var/log/rasevt";
constexpr sockaddr_un kSystemLog = {AF_UNIX, "/dev/log"};
constexpr size_t kLineSize = 640;
constexpr int kLogMs = 250;  // for a log daemon that is behind

// One line whatever the event's text holds; `size` includes the room for the newline.
void make_one_line(char *text, size_t length) {
    std::replace_if(
        text, text + length, [](char c) { return c == '\n' || c == '\r'; }, ' ');
    while (length > 0 && text[length - 1] == ' ')
        --length;
    text[length] = '\0';
}

// What snprintf() put into `size` bytes.
size_t cut(int length, size_t size) {
    return length < 0 ? 0 : std::min(static_cast<size_t>(length), size - 1);
}

// A connection to the log daemon, or none; datagrams unless it takes streams only.
int connect_to_log(int type) {
    Descriptor log(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    auto *address = reinterpret_cast<const sockaddr *>(&kSystemLog);
    if (log && connect(log.get(), address, sizeof kSystemLog) == 0)
        return log.release();
    return errno == EPROTOTYPE && type == SOCK_DGRAM ? connect_to_log(SOCK_STREAM) : -1;
}

// One record as syslog() forms it; its NUL ends it in a stream.
void send_to_system_log(const char *event, const tm &local) {
    static constexpr char kMonths[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    Descriptor log(connect_to_log(SOCK_DGRAM));
    if (!log)
        return;
    char line[kLineSize + 128];
    int length = snprintf(line, sizeof line, "<%d>%s %2d %02d:%02d:%02d %s: %s", LOG_USER | LOG_ERR,
                          kMonths[local.tm_mon], local.tm_mday, local.tm_hour, local.tm_min,
                          local.tm_sec, program_invocation_short_name, event);
    write_until(monotonic_ms() + kLogMs, log.get(), line, cut(length, sizeof line) + 1);
}

void append_to_event_file(const char *event, const tm &local) {
    Descriptor file(open(
        kEventFile, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0640));
    if (!file || !has_one_name(file.get()))
        return;
    char when[32] = "";
    strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
    char line[kLineSize + 128];
    int length = snprintf(line, sizeof line, "%s %s[%d] %s\n", when, program_invocation_short_name,
                          static_cast<int>(getpid()), event);
    write_until(monotonic_ms(), file.get(), line, cut(length, sizeof line));
}

}  // namespace
}  // namespace utils

using namespace utils;

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
    make_one_line(event, cut(length, sizeof event));
    tm local;
    local_time(time(nullptr), local);
    send_to_system_log(event, local);
    append_to_event_file(event, local);
    return 0;
}
