// SPDX-License-Identifier: Apache-2.0
// Event logs: a header and a ring of entries in one block, a trace section or heap memory. A log's
// mutex guards its ring and echo flag; the database's mutex guards the list and the section
// counter. Lock order: database, then log. Index and wrap count are read without the lock by a
// dump's header, so they are written and read as relaxed atomics.
#include "utils/evlog.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <type_traits>

#include "base/format.h"
#include "base/local_time.h"
#include "base/memory_order.h"
#include "base/retry.h"
#include "base/text.h"
#include "base/thread.h"
#include "utils/platform/trace.h"

// Other tools read this layout.
static_assert(std::is_standard_layout_v<qel_evlog_handle> && sizeof(qel_evlog_entry) == 76);
static_assert(offsetof(qel_evlog_entry, text) == 8 && offsetof(qel_evlog_handle, current) == 8);
static_assert(offsetof(qel_evlog_handle, wrapped) == 12 && offsetof(qel_evlog_handle, name) == 13);
static_assert(offsetof(qel_evlog_handle, shortcut) == 53 && offsetof(qel_evlog_handle, lock) == 64);
static_assert(offsetof(qel_evlog_handle, next) ==
                  offsetof(qel_evlog_handle, entries) + sizeof(void *) &&
              offsetof(qel_evlog_handle, trace_handle) == offsetof(qel_evlog_handle, echo) + 4);
static_assert(sizeof(void *) != 4 ||
              (sizeof(qel_evlog_handle) == 104 && offsetof(qel_evlog_handle, entries) == 88 &&
               offsetof(qel_evlog_handle, echo) == 96));

namespace utils {
namespace {

constexpr const char *kSystemDevice = "/dev/moxsys";
constexpr unsigned long kReadPlatformCode = 0x4004DF06;
constexpr size_t kTimeSize = 26;

std::atomic<int32_t> platform_code{0};
std::atomic<qel_evlog_db *> current_db{nullptr};

bool logs_on_heap(int32_t code) {
    return code == 26 || code == 27 || code == 34;
}

int32_t current_of(qel_evlog_handle &log) {
    return std::atomic_ref(log.current).load(kRelaxed);
}
int wrapped_of(qel_evlog_handle &log) {
    return std::atomic_ref(log.wrapped).load(kRelaxed);
}

// The count first: a writer that dies in between leaves a ring that still shows its events.
void set_position(qel_evlog_handle &log, int32_t current, unsigned wrapped) {
    std::atomic_ref(log.wrapped).store(static_cast<uint8_t>(wrapped), kRelaxed);
    std::atomic_ref(log.current).store(current, kRelaxed);
}

// Text of a field that has no terminator when it is full.
template <size_t size>
void copy_field(char (&to)[size], const char *text) {
    size_t length = text != nullptr ? strnlen(text, size) : 0;
    memset(to, 0, size);
    if (length > 0)
        memcpy(to, text, length);
}

// The mutex of a log in shared memory works between processes, for children that go on logging, and
// a child that is killed while it holds the mutex hands it on.
// A system without such mutexes, or without room for one, has a plain one, which needs nothing.
void init_log_mutex(pthread_mutex_t *mutex, bool shared) {
    if (init_mutex(mutex, PTHREAD_MUTEX_DEFAULT, shared) != 0) {
        static const pthread_mutex_t kPlain = PTHREAD_MUTEX_INITIALIZER;
        memcpy(mutex, &kPlain, sizeof kPlain);
    }
}

// Holds a log's mutex. What a dead holder has left of the ring
// is in order at any moment: the index moves last.
class LogLock {
  public:
    explicit LogLock(qel_evlog_handle &log) : mutex_(log.lock) {
        if (pthread_mutex_lock(&mutex_) == EOWNERDEAD)
            pthread_mutex_consistent(&mutex_);
    }
    ~LogLock() { pthread_mutex_unlock(&mutex_); }
    LogLock(const LogLock &) = delete;
    LogLock &operator=(const LogLock &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

// The section's name: five characters of the log's name, and the number behind a name that is no
// longer than that.
template <size_t size>
void name_section(char (&section)[size], const char *name, int number) {
    constexpr size_t kNamePart = 6;
    static_assert(size == kNamePart + 3);
    snprintf(section, kNamePart, "%s", name);
    size_t length = strlen(name);
    if (length < kNamePart)
        snprintf(section + length, 3, "%2u", static_cast<unsigned>(number) % 100);
}

// errno stays the platform's.
void report_section_failure(int section) {
    KeptErrno kept;
    char program[128] = "UNKNOWN";
    ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    if (length > 0)
        program[length] = '\0';
    printf("EVLOG: %s error in getting a section=%d\n", program, section);
}

// The zero-filled block of a new log, or null after the failure was printed.
qel_evlog_handle *new_block(int entries, const char *name, int section) {
    size_t size = sizeof(qel_evlog_handle) + static_cast<size_t>(entries) * sizeof(qel_evlog_entry);
    int trace_handle = QEL_EVLOG_HEAP;
    void *block = nullptr;
    if (int32_t code = platform_code.load(kRelaxed); logs_on_heap(code)) {
        block = calloc(1, size);
    } else {
        char section_name[9];
        name_section(section_name, name, section);
        if (trace_data_init(&trace_handle, TRACE_KIND_EVENT_LOG, static_cast<unsigned>(size),
                            section_name, section, &block, code) != 0) {
            report_section_failure(section);
            return nullptr;
        }
    }
    if (block == nullptr) {
        printf("EVLOG: error in getting a section\n");
        return nullptr;
    }
    auto *log = static_cast<qel_evlog_handle *>(block);
    log->trace_handle = trace_handle;
    return log;
}

// The rest expects the log's lock to be held.

UTILS_PRINTF(3, 0)
void store_event(qel_evlog_handle &log, qel_evlog_entry &entry, const char *format,
                 va_list values) {
    timeval now{};
    gettimeofday(&now, nullptr);
    entry.seconds = static_cast<int32_t>(now.tv_sec);
    entry.microseconds = static_cast<int32_t>(now.tv_usec);
    format_text(entry.text, sizeof entry.text, format, values);
    int32_t next = current_of(log) + 1;
    if (next >= log.total)
        set_position(log, 0, static_cast<unsigned>(wrapped_of(log)) + 1);
    else
        set_position(log, next, static_cast<unsigned>(wrapped_of(log)));
}

void dump_entries(FILE *stream, qel_evlog_handle &log, int32_t from, int32_t to, int level) {
    for (int32_t i = from; i < to; ++i) {
        char line[QEL_EVLOG_LINE_SIZE] = {};
        qel_evlog_entry_dump(stream, line, &log.entries[i], level);
        fprintf(stream, "%s", line);
    }
}

// Fills two logs, one of them beyond its end, for an eye to compare.
void run_self_test(qel_evlog_db &db) {
    qel_evlog_handle *first = qel_evlog_newHandle(&db, 1000, "General 1", "gen1");
    qel_evlog_handle *second =
        first != nullptr ? qel_evlog_newHandle(&db, 5, "General 2", "gen2") : nullptr;
    if (second == nullptr) {
        printf("error in eventlog get new handle()\n");
        qel_evlog_handle_free(first);
        return;
    }
    qel_evlog(first, "first event\n");
    qel_evlog(first, "an event that is longer than an entry holds: %s\n",
              "0123456789012345678901234567890123456789");
    for (int i = 1; i <= 7; ++i)
        qel_evlog(second, "event %d of 7\n", i);
    sleep(1);
    qel_evlog(first, "an event after a second\n");
    printf("-------------\n");
    qel_evlog_dump(stdout, first, 0);
    printf("no verbose-------------\n");
    qel_evlog_db_dump(stdout, &db, -1);
    printf("verbose-----------\n");
    qel_evlog_db_dump(stdout, &db, 1);
    qel_evlog_free(&db);
}

}  // namespace
}  // namespace utils

using namespace utils;

int qel_evlog_init(qel_evlog_db *db) {
    if (db == nullptr)
        return UTILS_EINVAL;
    init_log_mutex(&db->lock, false);
    db->head = nullptr;
    db->tail = nullptr;
    db->next_section = 1;
    current_db.store(db, std::memory_order_release);
    // Kept: the descriptor of the system's device stays open.
    int device = open(kSystemDevice, O_RDONLY | O_CLOEXEC);
    int32_t code = 0;
    if (device < 0 || ioctl(device, kReadPlatformCode, &code) < 0)
        return UTILS_ERROR;
    platform_code.store(code, kRelaxed);
    return 0;
}

qel_evlog_handle *qel_evlog_newHandle(qel_evlog_db *db, int entries, const char *name,
                                      const char *shortcut) {
    if (db == nullptr)
        return nullptr;
    if (entries > QEL_EVLOG_MAX_ENTRIES || entries < 1) {
        printf("Exceed supported evlog entries=%d\n", entries);
        return nullptr;
    }
    if (name == nullptr)
        name = "";
    // Kept: a creation that fails leaves the database locked.
    pthread_mutex_lock(&db->lock);
    if (db->next_section > QEL_EVLOG_MAX_SECTIONS) {
        printf("Exceed supported trace section section=%d\n", db->next_section);
        return nullptr;
    }
    qel_evlog_handle *log = new_block(entries, name, db->next_section);
    if (log == nullptr)
        return nullptr;
    init_log_mutex(&log->lock, log->trace_handle != QEL_EVLOG_HEAP);
    log->total = entries;
    set_position(*log, 0, 0);
    log->entries = reinterpret_cast<qel_evlog_entry *>(log + 1);
    copy_field(log->name, name);
    copy_field(log->shortcut, shortcut);
    log->next = nullptr;
    log->echo = 0;
    log->magic = QEL_EVLOG_MAGIC;
    qel_evlog_dbInsert(db, log);
    ++db->next_section;
    pthread_mutex_unlock(&db->lock);
    return log;
}

char *qel_evlog(qel_evlog_handle *handle, const char *format, ...) {
    if (handle == nullptr || format == nullptr)
        return nullptr;
    LogLock lock(*handle);
    qel_evlog_entry &entry = handle->entries[current_of(*handle)];
    va_list values;
    va_start(values, format);
    store_event(*handle, entry, format, values);
    va_end(values);
    if (handle->echo != 0)
        printf("%.*s:%s\n", QEL_EVLOG_NAME_SIZE, handle->name, entry.text);
    return entry.text;
}

int qel_evlog_dump(FILE *stream, qel_evlog_handle *handle, int level) {
    if (stream == nullptr)
        return UTILS_EINVAL;
    if (handle == nullptr || handle->magic != QEL_EVLOG_MAGIC) {
        fprintf(stream, "not valid handle\n");
        return UTILS_EINVAL;
    }
    fprintf(stream, "evt log            :%.*s\n", QEL_EVLOG_NAME_SIZE, handle->name);
    fprintf(stream, "shortcut           :%.*s\n", QEL_EVLOG_SHORTCUT_SIZE, handle->shortcut);
    fprintf(stream, "total entries      :%d\n", handle->total);
    fprintf(stream, "current            :%d\n", current_of(*handle));
    fprintf(stream, "wrapped            :%d\n", wrapped_of(*handle));
    fprintf(stream, "trace hndl         :%d\n", handle->trace_handle);
    {
        LogLock lock(*handle);
        int32_t current = current_of(*handle);
        if (wrapped_of(*handle) != 0)
            dump_entries(stream, *handle, current, handle->total, level);
        dump_entries(stream, *handle, 0, current, level);
    }
    fprintf(stream, "------------------------------------------------------\n");
    fflush(stream);
    return 0;
}

void qel_evlog_entry_dump(FILE *stream, char *line, qel_evlog_entry *entry, int level) {
    if (stream == nullptr || line == nullptr || entry == nullptr || level < 0)
        return;
    constexpr size_t kCutText = 65;
    tm local;
    // Kept in 32 bits; unsigned they reach to 2106.
    local_time(static_cast<uint32_t>(entry->seconds), local);
    size_t length = strftime(line, kTimeSize, "%H:%M:%S", &local);
    length += static_cast<size_t>(snprintf(line + length, QEL_EVLOG_LINE_SIZE - length, ".%03ld ",
                                           static_cast<long>(entry->microseconds / 1000)));
    size_t text = strnlen(entry->text, sizeof entry->text);
    if (text == 0)
        return;
    if (text > kCutText + 1) {
        memcpy(line + length, entry->text, std::min(kCutText, QEL_EVLOG_LINE_SIZE - 2 - length));
        line[QEL_EVLOG_LINE_SIZE - 2] = '\n';
        line[QEL_EVLOG_LINE_SIZE - 1] = '\0';
        return;
    }
    copy_text(line + length, QEL_EVLOG_LINE_SIZE - length, entry->text);
    // Kept: an event without a newline loses its last character in a dump.
    line[strlen(line) - 1] = '\n';
}

int qel_evlog_dbInsert(qel_evlog_db *db, qel_evlog_handle *handle) {
    if (db == nullptr || handle == nullptr)
        return UTILS_EINVAL;
    (db->tail != nullptr ? db->tail->next : db->head) = handle;
    db->tail = handle;
    return 0;
}

void qel_evlog_db_dump(FILE *stream, qel_evlog_db *db, int level) {
    if (db == nullptr)
        return;
    RecordLock lock(db->lock);
    for (qel_evlog_handle *log = db->head; log != nullptr; log = log->next)
        qel_evlog_dump(stream, log, level);
}

void qel_evlog_db_list(FILE *stream, qel_evlog_db *db) {
    if (db == nullptr || stream == nullptr)
        return;
    RecordLock lock(db->lock);
    fprintf(stream, "Listing all the handles:\n");
    for (qel_evlog_handle *log = db->head; log != nullptr; log = log->next) {
        LogLock log_lock(*log);
        fprintf(stream, "[%.*s]\t[%.*s]\n", QEL_EVLOG_NAME_SIZE, log->name, QEL_EVLOG_SHORTCUT_SIZE,
                log->shortcut);
    }
}

qel_evlog_handle *qel_evlog_findByShortCut(qel_evlog_db *db, const char *shortcut) {
    if (db == nullptr || shortcut == nullptr)
        return nullptr;
    RecordLock lock(db->lock);
    for (qel_evlog_handle *log = db->head; log != nullptr; log = log->next) {
        LogLock log_lock(*log);
        char stored[QEL_EVLOG_SHORTCUT_SIZE + 1] = {};
        memcpy(stored, log->shortcut, QEL_EVLOG_SHORTCUT_SIZE);
        if (same_word(stored, shortcut))
            return log;
    }
    return nullptr;
}

void qel_evlog_db_clear(qel_evlog_db *db) {
    if (db == nullptr)
        return;
    RecordLock lock(db->lock);
    for (qel_evlog_handle *log = db->head; log != nullptr; log = log->next)
        qel_evlog_clear(log);
}

void qel_evlog_clear(qel_evlog_handle *handle) {
    if (handle == nullptr)
        return;
    LogLock lock(*handle);
    memset(handle->entries, 0, static_cast<size_t>(handle->total) * sizeof(qel_evlog_entry));
    set_position(*handle, 0, 0);
}

int qel_evlog_free(qel_evlog_db *db) {
    if (db == nullptr)
        return UTILS_EINVAL;
    RecordLock lock(db->lock);
    while (qel_evlog_handle *log = db->head) {
        db->head = log->next;
        qel_evlog_handle_free(log);
    }
    db->tail = nullptr;
    return 0;
}

void qel_evlog_handle_free(qel_evlog_handle *handle) {
    if (handle == nullptr)
        return;
    if (handle->trace_handle != QEL_EVLOG_HEAP) {
        // The mutex ends with its memory: a forked child's parent, or its children, may go on.
        trace_module_cleanup(handle->trace_handle);
        return;
    }
    pthread_mutex_destroy(&handle->lock);
    free(handle);
}

void qel_evlog_handle_toggleShow(qel_evlog_handle *handle) {
    if (handle == nullptr)
        return;
    LogLock lock(*handle);
    handle->echo = handle->echo == 0 ? 1 : 0;
}

void qel_evlog_private_toggleShow(int argc, char **argv) {
    if (argc > 2 && argv != nullptr)
        qel_evlog_handle_toggleShow(
            qel_evlog_findByShortCut(current_db.load(std::memory_order_acquire), argv[2]));
}

void qel_evlog_test(void) {
    // The test's database lives here, so the program's own becomes the current one again.
    qel_evlog_db *before = current_db.load(std::memory_order_acquire);
    qel_evlog_db db;
    if (qel_evlog_init(&db) == 0)
        run_self_test(db);
    else
        printf("error in eventlog init()\n");
    current_db.store(before, std::memory_order_release);
}
