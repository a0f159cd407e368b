// SPDX-License-Identifier: Apache-2.0
// Growable strings with a table of operations, and plain byte buffers. A string owns its text and
// grows it by realloc; the sizes it takes are part of the interface. `avail` is what the operations
// last left there and is only trusted as far as the real room goes. Buffers end the process when
// memory runs out.
#include "utils/qel_string.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/format.h"
#include "base/heap.h"
#include "end_process.h"

static_assert(offsetof(qelString, ops) == sizeof(void *));
static_assert(offsetof(qelString, size) == 2 * sizeof(void *));
static_assert(offsetof(qelString, avail) == 2 * sizeof(void *) + 4);
static_assert(offsetof(qelString, retry) == 2 * sizeof(void *) + 8);
static_assert(sizeof(qelStringOps) == 8 * sizeof(void *));
static_assert(offsetof(Buffer, size) == sizeof(void *) &&
              offsetof(Buffer, used) == sizeof(void *) + 4);
static_assert(sizeof(void *) != 4 || (sizeof(qelString) == 20 && sizeof(Buffer) == 12));

namespace utils {
namespace {

constexpr uint64_t kSizeMax = INT32_MAX;
constexpr int kScratchSize = 256;

// What `allocate` gives; repeated while it gives null and `retry` is set.
template <typename Allocate>
auto allocated(bool retry, Allocate allocate) {
    auto *block = allocate();
    while (block == nullptr && retry)
        block = allocate();
    return block;
}

// Where `text` lies in the `size` bytes at `block`, or `size` when it lies elsewhere.
size_t offset_in(const char *block, size_t size, const char *text) {
    uintptr_t distance = reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(block);
    return distance < size ? static_cast<size_t>(distance) : size;
}

size_t text_length(const qelString &string) {
    size_t most = string.size - 1;
    return string.buf[most] == '\0' ? strlen(string.buf) : strnlen(string.buf, most);
}

// Sets `avail` from the text and returns the text's length.
size_t refresh(qelString &string) {
    size_t length = text_length(string);
    string.avail = string.size - 1 - static_cast<uint32_t>(length);
    return length;
}

// Gives the text `size` bytes, new ones zero. When memory runs out the text is lost.
bool resize(qelString &string, uint64_t size) {
    if (size > kSizeMax)
        return false;
    auto bytes = static_cast<size_t>(size);
    char *buf = allocated(string.retry != 0,
                          [&] { return static_cast<char *>(realloc(string.buf, bytes)); });
    if (buf == nullptr) {
        free(string.buf);
        string.buf = nullptr;
        string.size = string.avail = 0;
        return false;
    }
    memset(buf + string.size, 0, bytes - string.size);
    string.buf = buf;
    string.size = static_cast<uint32_t>(size);
    return true;
}

// Puts `n` characters and a terminator behind the `length` that are there; the room has been made.
char *concatenate(qelString &string, size_t length, const char *text, size_t n) {
    memmove(string.buf + length, text, n);
    string.buf[length + n] = '\0';
    string.avail -= static_cast<uint32_t>(n);
    return string.buf;
}

// Room grows by more than is asked for, so that appending costs little; `text` may be the string's own.
char *append(qelString *string, const char *text) {
    if (string == nullptr || string->buf == nullptr || text == nullptr)
        return nullptr;
    size_t length = refresh(*string);
    size_t n = strlen(text);
    if (n > string->avail) {
        uint64_t growth = n > 4 ? 2 * uint64_t{n} : 8;
        size_t own = offset_in(string->buf, string->size, text);
        bool is_own = own < string->size;
        if (!resize(*string, string->size + growth))
            return nullptr;
        string->avail += static_cast<uint32_t>(growth);
        if (is_own)
            text = string->buf + own;
    }
    return concatenate(*string, length, text, n);
}

char *append_char(qelString *string, char character) {
    if (string == nullptr || string->buf == nullptr)
        return nullptr;
    size_t length = refresh(*string);
    if (string->avail == 0) {
        if (!resize(*string, uint64_t{string->size} + 4))
            return nullptr;
        string->avail += 4;
    }
    return concatenate(*string, length, &character, 1);
}

char *set(qelString *string, const char *text) {
    if (string == nullptr || text == nullptr)
        return nullptr;
    size_t n = strlen(text);
    // Kept: `avail` may say less than the room there is.
    if (n >= string->size) {
        if (!resize(*string, uint64_t{n} + 2))
            return nullptr;
        string->avail = static_cast<uint32_t>(n) + 1;
    }
    return concatenate(*string, 0, text, n);
}

char *get(qelString *string) {
    return string != nullptr ? string->buf : nullptr;
}

// Puts `n` formatted characters behind the text; returns `n`, or UTILS_ERROR.
int append_formatted(qelString &string, const char *text, int n) {
    size_t length = text_length(string);
    // After set(), the stored room may be below 0. It never counts for more than there is.
    int64_t room = std::min<int64_t>(static_cast<int32_t>(string.avail),
                                     int64_t{string.size} - 1 - static_cast<int64_t>(length));
    if (n > room) {
        if (!resize(string, string.size + static_cast<uint64_t>(n - room + 1)))
            return UTILS_ERROR;
        refresh(string);
    }
    concatenate(string, length, text, static_cast<size_t>(n));
    return n;
}

// A text of `n` characters that is too long for the stack.
UTILS_PRINTF(3, 0)
int append_long(qelString &string, int n, const char *format, va_list values) {
    size_t size = static_cast<size_t>(n) + 1;
    HeapBlock<char> text(
        allocated(string.retry != 0, [=] { return static_cast<char *>(calloc(1, size)); }));
    if (!text || vsnprintf(text.get(), size, format, values) != n)
        return UTILS_ERROR;
    return append_formatted(string, text.get(), n);
}

// Formatted beside the string, since values may lie in it.
UTILS_PRINTF(2, 3) int appendf(qelString *string, const char *format, ...) {
    if (string == nullptr || string->buf == nullptr || format == nullptr)
        return UTILS_ERROR;
    char scratch[kScratchSize];
    va_list values;
    va_start(values, format);
    int n = format_text(scratch, sizeof scratch, format, values);
    va_end(values);
    if (n < 0)
        return UTILS_ERROR;
    if (n < kScratchSize)
        return append_formatted(*string, scratch, n);
    va_start(values, format);
    n = append_long(*string, n, format, values);
    va_end(values);
    return n;
}

void release(qelString *string) {
    if (string == nullptr)
        return;
    free(string->buf);
    free(string);
}

void clear(qelString *string) {
    if (string == nullptr || string->buf == nullptr)
        return;
    memset(string->buf, 0, string->size);
    string->avail = string->size - 1;
}

int length(qelString *string) {
    return string != nullptr && string->buf != nullptr ? static_cast<int>(text_length(*string)) : 0;
}

constexpr qelStringOps kOps = {append, append_char, set, get, appendf, release, clear, length};

[[noreturn]] void out_of_memory() {
    end_process(-1);
}

}  // namespace
}  // namespace utils

using namespace utils;

qelString *qelStringInit(int size, int retry) {
    HeapBlock<qelString> string(allocated(retry != 0, [] { return allocate_zeroed<qelString>(); }));
    if (!string) {
        printf("qelStringInit: newstr = %p\n", static_cast<void *>(string.get()));
        return nullptr;
    }
    string->ops = &kOps;
    string->size = static_cast<uint32_t>(size > 0 ? size : QEL_STRING_DEFAULT_SIZE);
    string->avail = string->size - 1;
    string->retry = retry;
    string->buf =
        allocated(retry != 0, [&] { return static_cast<char *>(calloc(1, string->size)); });
    return string->buf != nullptr ? string.release() : nullptr;
}

void initBuffer(Buffer *buffer, int size) {
    if (buffer == nullptr)
        return;
    buffer->size = size > 0 ? size : 1;
    buffer->used = 0;
    buffer->data = static_cast<char *>(calloc(1, static_cast<size_t>(buffer->size)));
    if (buffer->data == nullptr)
        out_of_memory();
}

char *appendBuffer(Buffer *buffer, const char *bytes, int len) {
    if (buffer == nullptr)
        return reinterpret_cast<char *>(uintptr_t{1});
    if (bytes == nullptr || len < 0)
        return nullptr;
    int64_t needed = int64_t{buffer->used} + len;
    if (needed > buffer->size || buffer->data == nullptr) {
        int64_t size = buffer->size > 0 ? buffer->size : 1;
        while (size < needed)
            size *= 2;
        if (size > INT32_MAX)
            out_of_memory();
        auto used = static_cast<size_t>(buffer->used);
        size_t own = offset_in(buffer->data, used, bytes);
        auto *data = static_cast<char *>(realloc(buffer->data, static_cast<size_t>(size)));
        if (data == nullptr)
            out_of_memory();
        if (own < used)
            bytes = data + own;
        buffer->data = data;
        buffer->size = static_cast<int32_t>(size);
    }
    char *to = buffer->data + buffer->used;
    auto room = static_cast<size_t>(len);
    size_t text = strnlen(bytes, room);
    memmove(to, bytes, text);
    memset(to + text, 0, room - text);
    buffer->used += len;
    return to;
}

void freeBuffer(Buffer *buffer) {
    if (buffer == nullptr)
        return;
    free(buffer->data);
    *buffer = {};
}
