// SPDX-License-Identifier: Apache-2.0
// The lines before the one that is coded, and the search for what it repeats of them: the longest
// run of characters at the same column of an older line, of equal ones that of the newest. Lines
// stand in rows, which are tried one after the other, or, where the processor has vectors, in
// columns: then all lines are compared with a character at once. Both find the same runs.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "utils/log_compress.h"

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace utils {

constexpr int kLineSlots = 128;
constexpr int kLineSlotSize = 256;

struct LineRun {
    int length;
    int distance;
};

// The lines are the slots behind `oldest` up to `newest`; none when both are equal.
struct LineRing {
    int32_t newest;
    int32_t oldest;

    bool empty() const { return newest == oldest; }
    int count() const { return (newest - oldest + kLineSlots) % kLineSlots; }
    int next() {
        newest = (newest + 1) % kLineSlots;
        if (newest == oldest)
            oldest = (oldest + 1) % kLineSlots;
        return newest;
    }
};

struct LineRows : LineRing {
    char slots[kLineSlots][kLineSlotSize];

    void add(const char *line, int length) {
        char *slot = slots[next()];
        auto size = static_cast<size_t>(length);
        memcpy(slot, line, size);
        memset(slot + size, 0, kLineSlotSize - size);
    }
    LineRun longest(const char *line, int column, int most) const;
};

// Runs that are too short to be coded count for nothing. At most `most` characters.
inline LineRun LineRows::longest(const char *line, int column, int most) const {
    LineRun best{LOG_COMPRESS_RUN_MIN - 1, 0};
    const char *wanted = line + column;
    const char *old = slots[newest] + column;
    int lines = most > best.length ? count() : 0;
    for (int distance = 0; distance < lines; ++distance) {
        if (old[best.length] == wanted[best.length] && old[0] == wanted[0]) {
            int length = 1;
            while (length < most && old[length] == wanted[length])
                ++length;
            if (length > best.length)
                best = {length, distance};
            if (length == most)
                break;
        }
        old += distance == newest ? (kLineSlots - 1) * kLineSlotSize : -kLineSlotSize;
    }
    return best;
}

// Codes the `length` characters of `line`, without an end; returns the bytes written.
template <typename Longest>
int code_line(const char *line, int length, unsigned char *out, Longest longest) {
    unsigned char *to = out;
    for (int column = 0; column < length;) {
        LineRun run = longest(column, std::min(length - column, LOG_COMPRESS_RUN_MAX));
        if (run.length < LOG_COMPRESS_RUN_MIN) {
            *to++ = static_cast<unsigned char>(line[column++] & LOG_COMPRESS_RUN_MAX);
        } else {
            *to++ = static_cast<unsigned char>(LOG_COMPRESS_END_OF_LINE | run.length);
            *to++ = static_cast<unsigned char>(run.distance);
            column += run.length;
        }
    }
    return static_cast<int>(to - out);
}

inline int code_line(LineRows &history, const char *line, int length, unsigned char *out) {
    int written = code_line(line, length, out, [&](int column, int most) {
        return history.longest(line, column, most);
    });
    history.add(line, length);
    return written;
}

#ifdef __x86_64__
// A bit for every slot.
__extension__ using LineMask = unsigned __int128;

// A character of a slot's line stands in the slot's byte of the character's column; behind the line
// there are zeros.
struct LineColumns : LineRing {
    unsigned char lengths[kLineSlots];
    char columns[kLineSlotSize][kLineSlots];

    void add(const char *line, int length) {
        int slot = next();
        int column = 0;
        for (; column < length; ++column)
            columns[column][slot] = line[column];
        for (; column < lengths[slot]; ++column)
            columns[column][slot] = '\0';
        lengths[slot] = static_cast<unsigned char>(length);
    }
    int distance_of_newest(LineMask lines) const {
        int turn = kLineSlots - 1 - newest;
        if (turn > 0)
            lines = lines << turn | lines >> (newest + 1);
        auto high = static_cast<uint64_t>(lines >> 64);
        return high != 0 ? __builtin_clzll(high)
                         : 64 + __builtin_clzll(static_cast<uint64_t>(lines));
    }
};

// A bit for each of 64 characters that is `wanted`.
inline uint64_t equal_of_64_sse2(const char *characters, char wanted) {
    auto equal = [&](int part) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(characters) + part);
        auto bits = _mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(wanted)));
        return static_cast<uint64_t>(static_cast<uint32_t>(bits)) << 16 * part;
    };
    return equal(0) | equal(1) | equal(2) | equal(3);
}

[[gnu::target("avx2")]] inline uint64_t equal_of_32_avx2(const char *characters, char wanted) {
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(characters));
    return static_cast<uint32_t>(
        _mm256_movemask_epi8(_mm256_cmpeq_epi8(v, _mm256_set1_epi8(wanted))));
}

// For every character of `line`, the slots with the same one at its column.
inline void equal_lines_sse2(const LineColumns &history, const char *line, int length,
                             LineMask *masks) {
    for (int i = 0; i < length; ++i) {
        const char *column = history.columns[i];
        masks[i] = LineMask{equal_of_64_sse2(column + 64, line[i])} << 64 |
                   equal_of_64_sse2(column, line[i]);
    }
}

[[gnu::target("avx2")]] inline void equal_lines_avx2(const LineColumns &history, const char *line,
                                                     int length, LineMask *masks) {
    for (int i = 0; i < length; ++i) {
        const char *column = history.columns[i];
        masks[i] = LineMask{equal_of_32_avx2(column + 96, line[i])} << 96 |
                   LineMask{equal_of_32_avx2(column + 64, line[i])} << 64 |
                   LineMask{equal_of_32_avx2(column + 32, line[i])} << 32 |
                   equal_of_32_avx2(column, line[i]);
    }
}

using EqualLines = void (*)(const LineColumns &, const char *, int, LineMask *);

// Codes `line` against all older lines at once, a bit for each, and remembers it.
inline int code_line(LineColumns &history, const char *line, int length, unsigned char *out,
                     EqualLines equal_lines) {
    LineMask masks[LOG_COMPRESS_LINE_MAX];
    equal_lines(history, line, length, masks);
    const LineMask all = ~(LineMask{1} << history.oldest);  // that slot may hold a line of before
    int written = code_line(line, length, out, [&](int column, int most) {
        LineMask lines = all;
        int run = 0;
        for (; run < most; ++run) {
            LineMask left = lines & masks[column + run];
            if (left == 0)
                break;
            lines = left;
        }
        return LineRun{run, run < LOG_COMPRESS_RUN_MIN ? 0 : history.distance_of_newest(lines)};
    });
    history.add(line, length);
    return written;
}
#endif

}  // namespace utils
