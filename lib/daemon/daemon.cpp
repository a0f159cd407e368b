// SPDX-License-Identifier: Apache-2.0
// A daemon from its start to its end. The order of the start is the point: nothing of a living
// instance is touched before the lock is held, signals come before anything that would have to be
// removed, and nobody is let in before the daemon's own start function has been through.
#include "utils/daemon.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/deadline.h"
#include "base/text.h"
#include "state.h"
#include "utils/console.h"
#include "utils/identity.h"
#include "utils/log_cache.h"
#include "utils/task.h"

static_assert(sizeof(void *) != 4 || sizeof(daemon_table) == 68);
static_assert(sizeof(void *) != 8 || sizeof(daemon_table) == 128);

namespace utils::service {

const daemon_table *table = nullptr;
char name[DAEMON_NAME_MAX + 1] = "daemon";

namespace {

constexpr int kMostOptions = 32;
constexpr int kCommandsMs = 2000;  // for commands that run when the daemon ends
constexpr int kNoSwitch = -1;
bool opened = false;

// Names are parts of file names, whose own parts are separated by dots.
int take_name(const char *text, void *) {
    size_t length = strlen(text);
    if (length == 0 || length > DAEMON_NAME_MAX || strpbrk(text, "./ \t\n") != nullptr)
        return UTILS_ERROR;
    copy_text(name, text);
    return 0;
}

int print_usage(const char *program) {
    const char *own = table->usage != nullptr ? table->usage : "";
    fprintf(stderr, "usage: %s [-s SWITCH] [-n NAME]%s%s\n", program, *own != '\0' ? " " : "", own);
    return DAEMON_USAGE;
}

// The options of every daemon and the table's own.
int take_options(int *argc, char **argv) {
    int number = kNoSwitch, count = 2;
    claFltrEntry options[kMostOptions + 1] = {{'s', "switch", clafGetInt, &number},
                                              {'n', "name", take_name, nullptr}};
    const claFltrEntry *own = table->options;
    for (; own != nullptr && own->handler != nullptr && count < kMostOptions; ++own)
        options[count++] = *own;
    claFltr(options, argc, argv);
    if (number != kNoSwitch && setMySwitch(number) != 0)
        return print_usage(argv[0]);
    return 0;
}

int refuse_log(const char *log) {
    char what[80];
    snprintf(what, sizeof what, "event log %s", log);
    return daemon_refuse(what);
}

int create_logs() {
    daemon_logs();
    for (const daemon_log *log = table->logs; log != nullptr && log->name != nullptr; ++log) {
        errno = 0;
        qel_evlog_handle *handle = daemon_new_log(log->entries, log->name, log->shortcut);
        if (handle == nullptr)
            return refuse_log(log->name);
        if (log->place != nullptr)
            *log->place = handle;
    }
    return 0;
}

// What needs no lock against another instance comes behind it.
int open_services() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    taskInit(name);
    prepare_signals();
    prepare_notify();
    // Who may not write there runs without: the lock is what counts.
    write_pid_file();
    errno = 0;
    if (log_cache_init(name) != 0)
        return daemon_refuse("log cache");
    if (int status = create_logs(); status != 0)
        return status;
    errno = ENOMEM;
    if (!prepare_commands())
        return daemon_refuse("statistics");
    if (!open_loop())
        return daemon_refuse("queue and timers");
    return start_watching(-1) ? 0 : daemon_refuse("watching thread");
}

// `whole`: nothing may be left of the command line.
int open_daemon(const daemon_table *description, int *argc, char **argv, bool whole) {
    if (opened || description == nullptr || description->name == nullptr || argc == nullptr ||
        *argc < 1 || argv == nullptr || take_name(description->name, nullptr) != 0) {
        errno = EINVAL;
        return daemon_refuse("description");
    }
    table = description;
    int status = take_options(argc, argv);
    if (status == 0 && whole && *argc != 1)
        status = print_usage(argv[0]);
    if (status == 0)
        status = lock_instance();
    if (status != 0)
        return status;
    opened = true;
    status = open_services();
    if (status != 0)
        remove_files();
    return status;
}

}  // namespace
}  // namespace utils::service

using namespace utils;
using namespace utils::service;

int daemon_refuse(const char *what) {
    int reason = errno;
    const char *separator = reason != 0 ? ": " : "";
    const char *text = reason != 0 ? strerror(reason) : "";
    console_printf("%s: cannot start: %s%s%s\n", name, what, separator, text);
    fprintf(stderr, "%s: cannot start: %s%s%s\n", name, what, separator, text);
    return DAEMON_REFUSED;
}

const char *daemon_name(void) {
    return name;
}

int daemon_open(const daemon_table *description, int *argc, char **argv) {
    return open_daemon(description, argc, argv, false);
}

int daemon_ready(void) {
    int listener = open_command_socket();
    if (listener < 0)
        return daemon_refuse("command socket");
    if (!open_requests())
        return daemon_refuse("request socket");
    start_watching(listener);
    notify("READY=1");
    return 0;
}

void daemon_close(void) {
    if (!opened)
        return;
    notify("STOPPING=1");
    close_requests();
    stop_accepting();
    remove_command_socket();
    end_clients(monotonic_ms() + kCommandsMs);
    refuse_deferred();
    if (table->stop != nullptr)
        table->stop(table->argument);
    forget_timers();
    timer_close_r();
    stop_watching();
    remove_files();
}

int daemon_run(const daemon_table *description, int argc, char **argv) {
    int status = open_daemon(description, &argc, argv, true);
    if (status != 0)
        return status;
    if (table->start != nullptr)
        status = table->start(table->argument);
    if (status == 0)
        status = daemon_ready();
    if (status != 0) {
        remove_files();
        return status;
    }
    status = daemon_loop();
    daemon_close();
    return status;
}
