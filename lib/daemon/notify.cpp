// SPDX-License-Identifier: Apache-2.0
// What a service manager is told, by the NOTIFY_SOCKET protocol: one datagram of lines to the
// socket that it names in the environment. The watchdog is fed by the loop, so that it is the loop
// that it watches.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "base/text.h"
#include "state.h"

namespace utils::service {
namespace {

char manager[sizeof(sockaddr_un::sun_path)];  // "" without one; '@' begins an abstract name
int64_t interval_ms = 0;                      // of the watchdog, halved; 0 without one
int64_t fed_ms = 0;

long long number_in(const char *variable) {
    const char *text = getenv(variable);
    return text != nullptr ? strtoll(text, nullptr, 10) : 0;
}

}  // namespace

// Programs that the daemon starts are not to speak for it.
void prepare_notify() {
    const char *path = getenv("NOTIFY_SOCKET");
    if (path != nullptr && (*path == '/' || *path == '@') && strlen(path) < sizeof manager)
        copy_text(manager, path);
    long long pid = number_in("WATCHDOG_PID"), us = number_in("WATCHDOG_USEC");
    if (*manager != '\0' && us > 0 && (pid == 0 || pid == getpid()))
        interval_ms = us / 2000 > 0 ? us / 2000 : 1;
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_PID");
    unsetenv("WATCHDOG_USEC");
}

// Tells the service manager, if there is one; who does not listen is not waited for.
void notify(const char *text) {
    if (*manager == '\0')
        return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    size_t length = strlen(manager);
    memcpy(address.sun_path, manager, length);
    if (*manager == '@')
        address.sun_path[0] = '\0';
    Descriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd)
        sendto(fd.get(), text, strlen(text), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<sockaddr *>(&address),
               static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

int feed_watchdog() {
    if (interval_ms == 0)
        return -1;
    int64_t now = monotonic_ms();
    if (fed_ms == 0 || now - fed_ms >= interval_ms) {
        fed_ms = now;
        notify("WATCHDOG=1");
    }
    int64_t left = fed_ms + interval_ms - now;
    return left < 3600000 ? static_cast<int>(left) : 3600000;
}

}  // namespace utils::service

void daemon_status(const char *text) {
    char line[512];
    snprintf(line, sizeof line, "STATUS=%s", text != nullptr ? text : "");
    for (char *at = line; *at != '\0'; ++at) {
        if (*at == '\n')
            *at = ' ';
    }
    utils::service::notify(line);
}
