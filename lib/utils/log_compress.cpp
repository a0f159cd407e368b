// Column-wise compression of log lines. Coder and decoder keep the same history of the last 127
// lines; a copy names a line by its distance and takes the characters of its own column from it.
// Each context is one block of memory, and nothing is allocated per line.
#include "utils/log_compress.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/heap.h"

namespace utils {
namespace {

constexpr int kSlots = 128;
constexpr int kSlotSize = 256;
constexpr unsigned char kCopy = 0x80;
constexpr unsigned char kLowBits = 0x7F;
constexpr int kLineRoom = LOG_COMPRESS_LINE_MAX + 2;  // what a line and its end may take at most

// The lines are the slots behind `oldest` up to `newest`; none when both are equal.
struct History {
    int32_t newest;
    int32_t oldest;
    char slots[kSlots][kSlotSize];

    bool empty() const { return newest == oldest; }
    void add(const char *line, size_t length);
    const char *at_distance(int distance) const;
};

void History::add(const char *line, size_t length) {
    newest = (newest + 1) % kSlots;
    if (newest == oldest)
        oldest = (oldest + 1) % kSlots;
    memcpy(slots[newest], line, length);
    memset(slots[newest] + length, 0, kSlotSize - length);
}

// The line that a copy refers to, or null. Once the indices have wrapped, the rule is looser than
// it might be and finds lines that were overwritten since; streams depend on it.
const char *History::at_distance(int distance) const {
    if (newest >= oldest)
        return newest - distance > oldest ? slots[newest - distance] : nullptr;
    int slot = (newest - distance + kSlots) % kSlots;
    return slot >= 0 ? slots[slot] : nullptr;
}

struct Run {
    int length;
    int distance;
};

// The longest common run of `line` with a line of the history from `column` on; of equal ones the
// newest. The coder's whole search: whatever takes its place must give the same runs.
Run find_run(const History &history, const char *line, int column) {
    Run best{0, 0};
    const char *wanted = line + column;
    int slot = history.newest;
    for (int distance = 0; slot != history.oldest;
         ++distance, slot = (slot + kSlots - 1) % kSlots) {
        if (wanted[best.length] == '\0' || best.length == LOG_COMPRESS_RUN_MAX)
            break;  // no longer run can be found
        const char *old = history.slots[slot] + column;
        if (old[best.length] != wanted[best.length])
            continue;
        int length = 0;
        while (length < LOG_COMPRESS_RUN_MAX && wanted[length] != '\0' &&
               old[length] == wanted[length])
            ++length;
        if (length > best.length)
            best = {length, distance};
    }
    return best;
}

}  // namespace
}  // namespace utils

using utils::Run;

struct log_compressor {
    unsigned char *obuf;
    int32_t capacity;
    int32_t written;
    utils::History history;

    void emit(int byte) { obuf[written++] = static_cast<unsigned char>(byte); }
    void emit_character(char c) { emit(c & utils::kLowBits); }
};

struct log_decompressor {
    const unsigned char *ibuf;
    int32_t length;
    int32_t position;
    utils::History history;

    bool more() const { return position < length && ibuf[position] != LOG_COMPRESS_END_OF_LINE; }
    int decode_token(char *out, int column);
};

// Appends one character or one copy at `column`; the column behind it, or -1.
int log_decompressor::decode_token(char *out, int column) {
    unsigned char byte = ibuf[position++];
    if (byte < utils::kCopy || history.empty()) {
        if (column >= LOG_COMPRESS_LINE_MAX)
            return -1;
        out[column] = static_cast<char>(byte);
        return column + 1;
    }
    int run = byte & utils::kLowBits;
    if (position >= length)
        return -1;
    const char *line = history.at_distance(ibuf[position++]);
    if (line == nullptr || column + run > LOG_COMPRESS_LINE_MAX)
        return -1;
    memcpy(out + column, line + column, static_cast<size_t>(run));
    return column + run;
}

log_compressor *log_createCompressor(unsigned char *obuf, int capacity) {
    if (obuf == nullptr || capacity < LOG_COMPRESS_BUFFER_MIN)
        return nullptr;
    auto *compressor = utils::allocate_zeroed<log_compressor>();
    if (compressor == nullptr)
        return nullptr;
    compressor->obuf = obuf;
    compressor->capacity = capacity;
    return compressor;
}

int log_compressLine(log_compressor *compressor, char *line) {
    if (compressor == nullptr || line == nullptr ||
        compressor->capacity - compressor->written < utils::kLineRoom)
        return -1;
    auto length = static_cast<int>(strnlen(line, LOG_COMPRESS_LINE_MAX));
    if (line[length] != '\0')
        line[length] = '\0';
    bool search = !compressor->history.empty();
    for (int column = 0; column < length;) {
        Run run = search ? utils::find_run(compressor->history, line, column) : Run{0, 0};
        if (run.length < LOG_COMPRESS_RUN_MIN) {
            compressor->emit_character(line[column]);
            ++column;
        } else {
            compressor->emit(utils::kCopy | run.length);
            compressor->emit(run.distance);
            column += run.length;
        }
    }
    compressor->emit(LOG_COMPRESS_END_OF_LINE);
    compressor->history.add(line, static_cast<size_t>(length));
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
    auto *decompressor = utils::allocate_zeroed<log_decompressor>();
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
    while (in.more()) {
        int next = in.decode_token(out, column);
        out[next < 0 ? column : next] = '\0';
        if (next < 0)
            return -1;
        column = next;
    }
    out[column] = '\0';
    in.history.add(out, static_cast<size_t>(column));
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
