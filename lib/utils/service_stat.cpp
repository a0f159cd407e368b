// SPDX-License-Identifier: Apache-2.0
// Service statistics: the table of counters and its report. The file is shared between processes;
// an exclusive flock covers the look whether it is empty, the heading and all rows. Everyone may
// lock it, so that it is not waited for long; without it a report still goes out whole, in one
// write. The table itself belongs to the daemon and has no lock.
#include "utils/service_stat.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "base/heap.h"
#include "base/local_time.h"
#include "base/memory_order.h"
#include "base/tick_rate.h"
#include "base/trusted.h"
#include "base/write_all.h"
#include "utils/ticks.h"

static_assert(sizeof(serviceStat) == 48 && offsetof(serviceStat, lowest_service_time) == 16);
static_assert(offsetof(serviceStat, calls) == 24 && offsetof(serviceStat, total_queue_time) == 36 &&
              offsetof(serviceStat, queue_samples) == 44);

serviceStat *serviceStats = nullptr;
int32_t serviceStatIsOn = 0;

namespace utils {
namespace {

constexpr int64_t kLockLimitMs = 2000;
constexpr int kLockPollMs = 10;

int32_t record_count = 0;

void switch_off() {
    std::atomic_ref(serviceStatIsOn).store(0, kRelaxed);
}

int32_t usable_records() {
    return serviceStats != nullptr ? record_count : 0;
}

void clear_table(uint64_t lowest) {
    for (int32_t i = 0; i < usable_records(); ++i) {
        serviceStats[i] = serviceStat{};
        serviceStats[i].lowest_service_time = lowest;
    }
}

void lock_report(int fd) {
    int64_t end_ms = monotonic_ms() + kLockLimitMs;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK && monotonic_ms() < end_ms)
        poll(nullptr, 0, kLockPollMs);
}

bool is_empty(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && status.st_size == 0;
}

// The report's columns, once at the top of a new file.
void write_heading(FILE *out, time_t now) {
    char date[32] = "\n";
    tm local;
    if (local_time(now, local))
        asctime_r(&local, date);
    fprintf(out, "%40s%s%s%s\n\n", "", "SWITCH SERVICE REQUEST R",
            "ESPONSE TIMES                       ", date);
    fprintf(out, "%s%s%s%s", "=======================================+", "=======+=======+=======+",
            "===================================+", "========================\n");
    fprintf(out, "%s%s%s%s", "                 REQUEST                ", " CALLS   RJT/   Drop/   ",
            "        Service Times (usec)        ", "   Queue Times (msec)   \n");
    fprintf(out, "%s%s%s%s", "Service   Req Code                      ", "           BSY    Retry ",
            "    Avg         High        Low     ", "    Avg         High    \n");
    fprintf(out, "%s%s%s%s%s", "==========", "=============================+",
            "=======+=======+=======+", "===================================+",
            "========================\n");
}

void write_row(FILE *out, const char *label, const char *name, const serviceStat &stat) {
    uint64_t ticks = tick_divisor(tb_ticks_p_usec);
    auto calls = static_cast<uint64_t>(int64_t{stat.calls});
    uint64_t average = calls != 0 ? stat.total_service_time / calls / ticks : 0;
    uint64_t lowest = calls != 0 ? stat.lowest_service_time / ticks : 0;
    uint32_t waited = stat.queue_samples != 0 ? stat.total_queue_time / stat.queue_samples : 0;
    fprintf(out, "%-5s%-35s%8d%8d%8d", label != nullptr ? label : "", name != nullptr ? name : "",
            stat.calls, stat.rejects, stat.drops);
    fprintf(out, "%12d%12" PRId64 "%12" PRId64, static_cast<int>(average),
            static_cast<int64_t>(stat.highest_service_time / ticks), static_cast<int64_t>(lowest));
    fprintf(out, "%12d%12d\n", static_cast<int>(waited), stat.highest_queue_time);
}

}  // namespace
}  // namespace utils

using namespace utils;

int serviceStat_init(int count) {
    switch_off();
    serviceStats = nullptr;
    record_count = count;
    if (count <= 0)
        return 0;
    serviceStats =
        static_cast<serviceStat *>(calloc(static_cast<size_t>(count), sizeof(serviceStat)));
    if (serviceStats == nullptr)
        return UTILS_ERROR;
    clear_table(SERVICE_STAT_UNSET);
    return 0;
}

void serviceStat_stop(const char *label, const char *const names[], int switchNo) {
    time_t now = time(nullptr);
    switch_off();
    char path[256];
    snprintf(path, sizeof path, SERVICE_STAT_FILE, switchNo);
    Descriptor report(
        open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    char *text = nullptr;
    size_t size = 0;
    FILE *out = report && has_one_name(report.get()) ? open_memstream(&text, &size) : nullptr;
    if (out == nullptr) {
        printf("\nfailed to open file %s\n", path);
        // Kept: without a report file the lowest times become 0, not all ones.
        clear_table(0);
        return;
    }
    lock_report(report.get());
    if (is_empty(report.get()))
        write_heading(out, now);
    for (int32_t i = 0; i < usable_records(); ++i)
        write_row(out, label, names != nullptr ? names[i] : nullptr, serviceStats[i]);
    fclose(out);
    write_all(report.get(), text, size);
    flock(report.get(), LOCK_UN);
    free(text);
    clear_table(SERVICE_STAT_UNSET);
}
