// SPDX-License-Identifier: Apache-2.0
// The log cache of the process: a ring of whole lines. One mutex guards the buffer and its
// counters; stamps are made and failures printed outside of it. The buffer has one byte more than
// its size, so that the two bytes which a copy takes behind
// the last line are always there, and are zero.
#include "utils/log_cache.h"

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/format.h"
#include "base/held_signal.h"
#include "base/local_time.h"
#include "base/memory_order.h"
#include "base/thread.h"
#include "base/trusted.h"
#include "base/write_all.h"

int32_t logCacheReqCode = 0;
int32_t logCacheRespCode = 0;

namespace utils {
namespace {

constexpr const char *kModule = "log_cache";

// Between two starts at the beginning, [start, write) holds whole lines; `room` bytes behind them
// are free, and the last byte of the buffer is never written.
struct Cache {
    char *start;
    char *write;
    int32_t size;
    int32_t room;
    int32_t wraps;
    char path[128];
};

// "HH:MM:SS tid ", what the lines of a thread begin with for the length of a second.
struct Stamp {
    time_t second;
    size_t length;  // 0: none was made
    char text[32];
};

thread_local Stamp stamp;
bool stamps_last = false;  // set before `instantiated`: forked children drop theirs

Mutex cache_mutex;
Cache cache UTILS_GUARDED_BY(cache_mutex);
std::atomic<bool> instantiated{false};

// The thread of a forked child has another number.
void drop_stamp() {
    stamp.length = 0;
}

int32_t clamped(int32_t size) {
    if (size < LOG_CACHE_SIZE_DEFAULT)
        return LOG_CACHE_SIZE_DEFAULT;
    return size > LOG_CACHE_SIZE_MAX ? LOG_CACHE_SIZE_MAX : size;
}

void make_empty() UTILS_REQUIRES(cache_mutex) {
    cache.write = cache.start;
    cache.room = cache.size > 0 ? cache.size - 1 : 0;
    cache.wraps = 0;
}

// False when memory runs out; the cache has no buffer then.
bool make_buffer(int32_t size) UTILS_REQUIRES(cache_mutex) {
    cache.start = static_cast<char *>(calloc(1, static_cast<size_t>(size) + 1));
    cache.size = cache.start != nullptr ? size : 0;
    make_empty();
    return cache.start != nullptr;
}

// Makes the buffer; whoever was first is the one that registers with fork().
int create(const char *name, int32_t size) {
    MutexLock lock(cache_mutex);
    if (!instantiated.load(kRelaxed))
        free(cache.start);  // of a resize before the first init
    Cache before = cache;
    if (!make_buffer(clamped(size))) {
        // A cache that works goes on working.
        if (instantiated.load(kRelaxed))
            cache = before;
        return LOG_CACHE_NO_MEMORY;
    }
    snprintf(cache.path, sizeof cache.path, "/tmp/%s", name);
    if (!instantiated.load(kRelaxed))
        stamps_last = pthread_atfork(nullptr, nullptr, drop_stamp) == 0;
    instantiated.store(true, std::memory_order_release);
    return 0;
}

int reported(int result, int line) {
    if (result == LOG_CACHE_NO_MEMORY)
        printf("Insufficient system resources: %s - %d\n", kModule, line);
    else if (result == LOG_CACHE_NOT_INSTANTIATED)
        printf("Cache NOT Instantiated. Cannot dump cache\n");
    return result;
}

// A new second looks at the zone again.
const Stamp &stamp_of_thread() {
    time_t now = time(nullptr);
    if (stamp.length == 0 || stamp.second != now || !stamps_last) {
        tm local;
        local_time(now, local);
        int length = snprintf(stamp.text, sizeof stamp.text, "%02d:%02d:%02d %d ", local.tm_hour,
                              local.tm_min, local.tm_sec, static_cast<int>(gettid()));
        stamp.length = static_cast<size_t>(length);
        stamp.second = now;
    }
    return stamp;
}

// Appends a stamped line, from the beginning again where the end has no room.
void store_line(const Stamp &front, const char *text, size_t text_length)
    UTILS_REQUIRES(cache_mutex) {
    if (cache.start == nullptr)
        return;
    auto total = static_cast<int32_t>(front.length + text_length);
    if (total > cache.room) {
        memset(cache.write, 0, static_cast<size_t>(cache.room));
        ++cache.wraps;
        cache.write = cache.start;
        cache.room = cache.size - 1;
    }
    memcpy(cache.write, front.text, front.length);
    memcpy(cache.write + front.length, text, text_length);
    cache.write += total;
    cache.room -= total;
}

int dump_to_file() UTILS_REQUIRES(cache_mutex) {
    if (!instantiated.load(kRelaxed) || cache.start == nullptr)
        return LOG_CACHE_NOT_INSTANTIATED;
    HeldSignal size_limit(SIGXFSZ);
    Replacement file(cache.path, 0644);
    auto room = static_cast<size_t>(cache.room);
    // Kept: zero bytes may stand between the two generations of a dump.
    bool whole = file && (cache.wraps == 0 || write_all(file.get(), cache.write, room)) &&
                 write_all(file.get(), cache.start, static_cast<size_t>(cache.size) - room);
    if (!whole)
        size_limit.raised();
    return whole && file.commit() ? 0 : LOG_CACHE_NO_FILE;
}

int replace_buffer(int32_t size, int *dumped) {
    MutexLock lock(cache_mutex);
    *dumped = dump_to_file();
    free(cache.start);
    return make_buffer(clamped(size)) ? 0 : LOG_CACHE_NO_MEMORY;
}

int copy_lines(char *buf, int len) {
    MutexLock lock(cache_mutex);
    if (!instantiated.load(kRelaxed) || cache.start == nullptr)
        return LOG_CACHE_NOT_INSTANTIATED;
    int n = cache.size - cache.room + 1;
    if (buf == nullptr || n >= len)
        return LOG_CACHE_TOO_SMALL;
    memcpy(buf, cache.start, static_cast<size_t>(n));
    buf[n] = '\n';
    return n;
}

int dump_locked() {
    MutexLock lock(cache_mutex);
    return dump_to_file();
}

}  // namespace
}  // namespace utils

using namespace utils;

int log_cache_init(const char *name) {
    if (name == nullptr)
        abort();
    return reported(create(name, LOG_CACHE_SIZE_DEFAULT), __LINE__);
}

void log_cache_write(const char *format, ...) {
    if (!instantiated.load(std::memory_order_acquire) || format == nullptr)
        return;
    char text[LOG_CACHE_LINE_MAX + 1];
    va_list values;
    va_start(values, format);
    int length = format_text(text, sizeof text, format, values);
    va_end(values);
    if (length > LOG_CACHE_LINE_MAX)
        abort();
    if (length >= 0)
        log_cache_write_string(text);
}

void log_cache_write_string(const char *text) {
    if (!instantiated.load(std::memory_order_acquire) || text == nullptr)
        return;
    const Stamp &front = stamp_of_thread();
    size_t text_length = strlen(text);
    if (front.length + text_length > LOG_CACHE_LINE_MAX)
        abort();
    MutexLock lock(cache_mutex);
    store_line(front, text, text_length);
}

int log_cache_dump(void) {
    return reported(dump_locked(), __LINE__);
}

int log_cache_dump_buf(char *buf, int len) {
    return reported(copy_lines(buf, len), __LINE__);
}

int log_cache_resize(int size) {
    int dumped = 0;
    int result = replace_buffer(size, &dumped);
    reported(dumped, __LINE__);
    return reported(result, __LINE__);
}

int log_cache_reset(void) {
    MutexLock lock(cache_mutex);
    make_empty();
    return 0;
}
