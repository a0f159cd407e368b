// SPDX-License-Identifier: Apache-2.0
// Column-wise compression of log lines. Coder and decoder keep the same history of the last 127
// lines; a copy names a line by its distance and takes the characters of its own column from it.
// Each context is one block of memory, and nothing is allocated per line.
#include "utils/log_compress.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/heap.h"
#include "line_history.h"

namespace utils {
namespace {

constexpr int kLineRoom = LOG_COMPRESS_LINE_MAX + 2;  // what a line and its end may take at most

// The line that a copy refers to, or null. Once the indices have wrapped, the rule is looser than
// it might be and finds lines that were overwritten since; streams depend on it.
const char *line_at(const LineRows &history, int distance) {
    int slot = history.newest - distance;
    if (history.newest >= history.oldest)
        return slot > history.oldest ? history.slots[slot] : nullptr;
    // Kept: a copy may refer to a line that was overwritten since.
    slot = (slot + kLineSlots) % kLineSlots;
    return slot >= 0 ? history.slots[slot] : nullptr;
}

// Both sides have `room` bytes: steps of a fixed size are faster than a copy of any size.
void copy_run(char *to, const char *from, int run, int room) {
    constexpr int kStep = 16;
    if (room < LOG_COMPRESS_RUN_MAX + kStep) {
        memcpy(to, from, static_cast<size_t>(run));
        return;
    }
    for (int done = 0; done < run; done += kStep)
        memcpy(to + done, from + done, kStep);
}

}  // namespace
}  // namespace utils

using namespace utils;

struct log_compressor {
    unsigned char *obuf;
    int32_t capacity;
    int32_t written;
#ifdef __x86_64__
    LineColumns history;
#else
    LineRows history;
#endif

    int code(const char *line, int length) {
        unsigned char *out = obuf + written;
#ifdef __x86_64__
        // GCOVR_EXCL_START: the processor says which
        return code_line(history, line, length, out,
                         __builtin_cpu_supports("avx2") ? equal_lines_avx2 : equal_lines_sse2);
        // GCOVR_EXCL_STOP
#else
        return code_line(history, line, length, out);
#endif
    }
};

struct log_decompressor {
    const unsigned char *ibuf;
    int32_t length;
    int32_t position;
    LineRows history;

    bool decode(char *out, int *column);
};

// Appends characters and copies up to the end of the line
// or of the stream; false when one cannot be.
bool log_decompressor::decode(char *out, int *column) {
    const unsigned char *from = ibuf + position;
    const unsigned char *end = ibuf + length;
    const bool first = history.empty();
    int at = 0;
    bool good = true;
    while (good && from != end && *from != LOG_COMPRESS_END_OF_LINE) {
        int byte = *from++;
        if (byte < LOG_COMPRESS_END_OF_LINE || first) {
            good = at < LOG_COMPRESS_LINE_MAX;
            if (good)
                out[at++] = static_cast<char>(byte);
            continue;
        }
        int run = byte & LOG_COMPRESS_RUN_MAX;
        const char *line = from != end ? line_at(history, *from++) : nullptr;
        good = line != nullptr && at + run <= LOG_COMPRESS_LINE_MAX;
        if (good) {
            copy_run(out + at, line + at, run, kLineSlotSize - at);
            at += run;
        }
    }
    position = static_cast<int32_t>(from - ibuf);
    *column = at;
    return good;
}

log_compressor *log_createCompressor(unsigned char *obuf, int capacity) {
    if (obuf == nullptr || capacity < LOG_COMPRESS_BUFFER_MIN)
        return nullptr;
    auto *compressor = allocate_zeroed<log_compressor>();
    if (compressor == nullptr)
        return nullptr;
    compressor->obuf = obuf;
    compressor->capacity = capacity;
    return compressor;
}

int log_compressLine(log_compressor *compressor, char *line) {
    if (compressor == nullptr || line == nullptr ||
        compressor->capacity - compressor->written < kLineRoom)
        return -1;
    auto length = static_cast<int>(strnlen(line, LOG_COMPRESS_LINE_MAX));
    // Kept: a line that is too long is cut in its caller's own buffer.
    if (line[length] != '\0')
        line[length] = '\0';
    compressor->written += compressor->code(line, length);
    // Kept: an empty line enters the history of the coder alone.
    compressor->obuf[compressor->written++] = LOG_COMPRESS_END_OF_LINE;
    return 0;
}

unsigned char *log_getCompressorObuf(log_compressor *compressor) {
    return compressor != nullptr ? compressor->obuf : nullptr;
}

int log_getCompressorOlen(log_compressor *compressor) {
    return compressor != nullptr ? compressor->written : 0;
}

void log_deleteCompressor(log_compressor *compressor) {
    free(compressor);
}

log_decompressor *log_createDecompressor(const unsigned char *ibuf, int length) {
    if (ibuf == nullptr || length < LOG_COMPRESS_BUFFER_MIN)
        return nullptr;
    auto *decompressor = allocate_zeroed<log_decompressor>();
    if (decompressor == nullptr)
        return nullptr;
    decompressor->ibuf = ibuf;
    decompressor->length = length;
    return decompressor;
}

int log_decompressGetLine(log_decompressor *decompressor, char *out) {
    if (decompressor == nullptr || out == nullptr)
        return -1;
    log_decompressor &in = *decompressor;
    out[0] = '\0';
    if (in.position >= in.length)
        return 0;
    while (in.position < in.length && in.ibuf[in.position] == LOG_COMPRESS_END_OF_LINE)
        ++in.position;
    int column = 0;
    bool good = in.decode(out, &column);
    out[column] = '\0';
    if (!good)
        return -1;
    in.history.add(out, column);
    return column;
}

void log_deleteDecompressor(log_decompressor *decompressor) {
    free(decompressor);
}

void log_showDecompressedData(const unsigned char *ibuf, int length) {
    log_decompressor *decompressor = log_createDecompressor(ibuf, length);
    if (decompressor == nullptr) {
        printf("Error: can't create log data decompressor\n");
        return;
    }
    printf("\n\nDecompressed data start ********\n");
    char line[LOG_COMPRESS_LINE_SIZE];
    while (log_decompressGetLine(decompressor, line) >= 1)
        printf("%s", line);
    printf("\nDecompressed data end ********\n\n");
    log_deleteDecompressor(decompressor);
}
