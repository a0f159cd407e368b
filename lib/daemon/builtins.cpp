// SPDX-License-Identifier: Apache-2.0
// What an operator can ask every daemon: its commands, its version, and how its queues, timers,
// logs and memory are. What is printed under a lock is collected first: a client that does not read
// must hold up nobody. `tables_mutex` guards the lists of what is shown; a queue's is taken under it.
#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "base/heap.h"
#include "base/thread.h"
#include "base/tick_rate.h"
#include "base/time_base.h"
#include "commands.h"
#include "utils/log_cache.h"
#include "utils/ticks.h"

namespace utils::service {
namespace {

struct Shown {
    msgQHandle queue;
    timerHandle timer;
    const char *name;
    Shown *next;
};

Mutex tables_mutex;
Shown *queues UTILS_GUARDED_BY(tables_mutex) = nullptr;
Shown *timers UTILS_GUARDED_BY(tables_mutex) = nullptr;
qel_evlog_db logs;
bool logs_prepared = false;
std::atomic<bool> logs_broken{false};

int append(Shown *&list, const Shown &entry) {
    auto *fresh = allocate_zeroed<Shown>();
    if (fresh == nullptr)
        return UTILS_ENOMEM;
    *fresh = entry;
    fresh->next = nullptr;
    Shown **end = &list;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = fresh;
    return 0;
}

// Collects what `print` says, and then gives it to the client.
template <typename Print>
int print_collected(FILE *out, Print print) {
    Collected collected;
    if (collected.stream() == nullptr)
        return fprintf(out, "out of memory\n"), 1;
    print(collected.stream());
    return collected.give_to(out) ? 0 : 1;
}

int cmd_version(int, char **, FILE *out) {
    const char *version = table->version != nullptr ? table->version : "";
    fprintf(out, "%s%s%s\n", name, *version != '\0' ? " " : "", version);
    return 0;
}

// How full each queue is and has been, and what it has refused.
int cmd_queues(int, char **, FILE *out) {
    return print_collected(out, [](FILE *to) {
        MutexLock lock(tables_mutex);
        fprintf(to, "%-23s %7s %7s %10s %7s\n", "QUEUE", "WAITING", "DEPTH", "HIGH WATER",
                "MISSES");
        for (Shown *entry = queues; entry != nullptr; entry = entry->next) {
            RecordLock queue_lock(entry->queue->lock);
            const msgQ &queue = *entry->queue;
            // The loop's queue has one place for the companion's own message.
            int own = entry->queue == daemon_queue() ? 1 : 0;
            fprintf(to, "%-23s %7d %7d %10d %7d\n", queue.name,
                    static_cast<int>(queue.queued.count), static_cast<int>(queue.maxMsgs) - own,
                    static_cast<int>(queue.highWater), static_cast<int>(queue.missCount));
        }
    });
}

// The service changes the word under a lock of its own: here it is as of just before or after.
__attribute__((no_sanitize("thread"))) uint32_t due_time(timerHandle timer) {
    return *static_cast<volatile uint32_t *>(&timer->expiry);
}

// The timers' millisecond clock.
uint32_t now_ms() {
    return static_cast<uint32_t>(time_base() / tick_divisor(tb_ticks_p_msec));
}

// Which timers run, and when each is due.
int cmd_timers(int, char **, FILE *out) {
    return print_collected(out, [](FILE *to) {
        MutexLock lock(tables_mutex);
        fprintf(to, "%-23s %-8s %s\n", "TIMER", "STATE", "NEXT DUE");
        for (Shown *entry = timers; entry != nullptr; entry = entry->next) {
            bool armed = timer_ticking_r(entry->timer) == 1;
            fprintf(to, "%-23s %-8s ", entry->name, armed ? "armed" : "idle");
            if (armed)
                fprintf(to, "in %d ms\n", static_cast<int>(due_time(entry->timer) - now_ms()));
            else
                fprintf(to, "-\n");
        }
    });
}

int cmd_logs(int argc, char **argv, FILE *out) {
    if (argc > 1 && strcmp(argv[1], "cache") == 0)
        return daemon_cmd_log(argc, argv, out);
    if (argc == 1)
        return daemon_cmd_events(argc, argv, out) | daemon_cmd_log(argc, argv, out);
    qel_evlog_handle *log = logs_broken.load() ? nullptr : qel_evlog_findByShortCut(&logs, argv[1]);
    if (log == nullptr)
        return fprintf(out, "no log %s\n", argv[1]), 1;
    return print_collected(out, [log](FILE *to) { qel_evlog_dump(to, log, 1); });
}

int count_descriptors() {
    int count = 0;
    DIR *directory = opendir("/proc/self/fd");
    while (directory != nullptr && readdir(directory) != nullptr)
        ++count;
    if (directory != nullptr)
        closedir(directory);
    return count > 3 ? count - 3 : 0;  // not ".", ".." and the directory itself
}

int cmd_memory(int, char **, FILE *out) {
    FILE *file = fopen("/proc/self/status", "re");
    if (file == nullptr)
        return fprintf(out, "/proc cannot be read\n"), 1;
    char line[256];
    while (fgets(line, sizeof line, file) != nullptr) {
        if (strncmp(line, "Vm", 2) == 0 || strncmp(line, "Threads:", 8) == 0)
            fputs(line, out);
    }
    fclose(file);
    fprintf(out, "Descriptors:\t%d\n", count_descriptors());
    return 0;
}

int cmd_help(int argc, char **argv, FILE *out);

const daemon_command kBuiltin[] = {
    {"help", "[COMMAND]", "what COMMAND does; built in as well:", cmd_help, 0},
    {"version", nullptr, "the daemon's version", cmd_version, 0},
    {"queues", nullptr, "message queues: waiting, depth, high water, misses", cmd_queues, 0},
    {"timers", nullptr, "timers: armed or idle, next due", cmd_timers, 0},
    {"logs", "[SHORTCUT|cache]", "the event logs and the log cache, or one of them", cmd_logs, 0},
    {"memory", nullptr, "memory, threads and descriptors in use", cmd_memory, 0},
    {"result", nullptr, "what the last command of this client gave", cmd_result, 0}};
constexpr int kBuiltins = sizeof kBuiltin / sizeof kBuiltin[0];

int own_count() {
    int count = 0;
    while (table->commands != nullptr && table->commands[count].word != nullptr)
        ++count;
    return count;
}

int print_width(const daemon_command &command) {
    size_t arguments = command.arguments != nullptr ? strlen(command.arguments) + 1 : 0;
    return static_cast<int>(strlen(command.word) + arguments);
}

void print_help(FILE *out, const daemon_command &command, int width) {
    const char *arguments = command.arguments != nullptr ? command.arguments : "";
    int length = fprintf(out, "%s%s%s", command.word, *arguments != '\0' ? " " : "", arguments);
    fprintf(out, "%*s %s", width > length ? width - length : 0, "",
            command.help != nullptr ? command.help : "");
}

// One line a command of the daemon's own; the built-in ones share the first.
int cmd_help(int argc, char **argv, FILE *out) {
    int own = own_count(), width = print_width(kBuiltin[0]);
    for (int i = 0; i < own + kBuiltins; ++i) {
        const daemon_command &command = *command_at(i);
        if (argc > 1 && strcmp(argv[1], command.word) == 0) {
            print_help(out, command, 0);
            fputc('\n', out);
            return 0;
        }
        if (i < own && print_width(command) > width)
            width = print_width(command);
    }
    if (argc > 1)
        return fprintf(out, "no command %s\n", argv[1]), 1;
    print_help(out, kBuiltin[0], width);
    for (int i = 1; i < kBuiltins; ++i)
        fprintf(out, " %s", kBuiltin[i].word);
    fputc('\n', out);
    for (int i = 0; i < own; ++i) {
        print_help(out, table->commands[i], width);
        fputc('\n', out);
    }
    return 0;
}

}  // namespace

const daemon_command *command_at(int number) {
    int own = own_count();
    if (number < own)
        return &table->commands[number];
    return number < own + kBuiltins ? &kBuiltin[number - own] : nullptr;
}

void forget_timers() {
    MutexLock lock(tables_mutex);
    while (timers != nullptr) {
        HeapBlock<Shown> gone(timers);
        timers = gone->next;
    }
}

}  // namespace utils::service

using namespace utils;
using namespace utils::service;

qel_evlog_db *daemon_logs(void) {
    if (!logs_prepared) {
        qel_evlog_init(&logs);  // without the system device the platform code is 0, which serves
        logs_prepared = true;
    }
    return &logs;
}

qel_evlog_handle *daemon_new_log(int entries, const char *log_name, const char *shortcut) {
    if (logs_broken.load() || entries < 1 || entries > QEL_EVLOG_MAX_ENTRIES)
        return nullptr;
    qel_evlog_handle *log = qel_evlog_newHandle(daemon_logs(), entries, log_name, shortcut);
    if (log == nullptr)
        logs_broken.store(true);  // and the database is locked for ever
    return log;
}

int daemon_add_queue(msgQHandle queue) {
    MutexLock lock(tables_mutex);
    return queue != nullptr ? append(queues, {queue, nullptr, nullptr, nullptr}) : UTILS_EINVAL;
}

msgQHandle daemon_new_queue(int depth, unsigned size, const char *queue_name) {
    msgQHandle queue = msgQCreate(depth, size, 0, queue_name);
    if (queue != nullptr && daemon_add_queue(queue) == 0)
        return queue;
    msgQDelete(queue);
    return nullptr;
}

int daemon_add_timer(timerHandle timer, const char *timer_name) {
    MutexLock lock(tables_mutex);
    return timer != nullptr && timer_name != nullptr
               ? append(timers, {nullptr, timer, timer_name, nullptr})
               : UTILS_EINVAL;
}

timerHandle daemon_new_timer(const char *timer_name, int periodic, timerHandler handler,
                             uintptr_t arg1, uintptr_t arg2) {
    timerHandle timer = createTimer(daemon_queue(), 0, handler, arg1, arg2, periodic);
    if (timer != nullptr && daemon_add_timer(timer, timer_name) == 0)
        return timer;
    if (timer != nullptr)
        timer_delete_r(timer);
    return nullptr;
}

int daemon_delete_timer(timerHandle timer) {
    {
        MutexLock lock(tables_mutex);
        for (Shown **place = &timers; *place != nullptr; place = &(*place)->next) {
            if ((*place)->timer != timer)
                continue;
            HeapBlock<Shown> gone(*place);
            *place = gone->next;
            break;
        }
    }
    return timer_delete_r(timer);
}

int daemon_cmd_events(int, char **, FILE *out) {
    if (logs_broken.load() || !logs_prepared)
        return fprintf(out, "there are no event logs\n"), 1;
    return print_collected(out, [](FILE *to) { qel_evlog_db_dump(to, &logs, 1); });
}

int daemon_cmd_log(int, char **, FILE *out) {
    constexpr int kSize = LOG_CACHE_SIZE_MAX + 16;
    HeapBlock<char> text(static_cast<char *>(malloc(kSize)));
    int length = text ? log_cache_dump_buf(text.get(), kSize) : LOG_CACHE_NO_MEMORY;
    for (int i = 0; i < length; ++i) {
        if (text.get()[i] != '\0')
            fputc(text.get()[i], out);
    }
    return length < 0 ? 1 : 0;
}
