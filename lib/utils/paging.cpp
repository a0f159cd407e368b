// SPDX-License-Identifier: Apache-2.0
// Page prompt, dumps, 64-bit numbers and the small helpers of console commands. The paging switch
// is the only state; a relaxed atomic, since any thread may turn it.
#include "utils/paging.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/memory_order.h"
#include "utils/clock.h"
#include "utils/task.h"

namespace utils {
namespace {

constexpr int kLineBytes = 16;
constexpr int kDefaultUnits = 256;

std::atomic<bool> paging_off{false};

// A dump's line is made in one piece: address, units of up to 16 bytes and characters.
constexpr size_t kLineRoom = 128;

constexpr const char *kHexDigits = "0123456789abcdef";

char *put_byte(char *to, unsigned char byte) {
    to[0] = kHexDigits[byte >> 4];
    to[1] = kHexDigits[byte & 0xF];
    return to + 2;
}

// "%08x: "
char *put_address(char *to, const void *address) {
    auto number = reinterpret_cast<uintptr_t>(address);
    for (int digits = std::max(8, (static_cast<int>(std::bit_width(number)) + 3) / 4); digits > 0;)
        *to++ = kHexDigits[number >> 4 * --digits & 0xF];
    *to++ = ':';
    *to++ = ' ';
    return to;
}

// A word shows its bytes from the most significant on; units of other widths show zeros.
char *put_unit(char *to, const unsigned char *unit, int width) {
    constexpr bool kLittle = std::endian::native == std::endian::little;
    const bool word = width == 2 || width == 4;
    for (int i = 0; i < width; ++i)
        to = put_byte(to, word ? unit[kLittle ? width - 1 - i : i] : '\0');
    return to;
}

char *put_blanks(char *to, int count) {
    memset(to, ' ', static_cast<size_t>(count));
    return to + count;
}

// The units that begin in the 16 bytes from `at` on; behind `end` there are blanks. A unit that is
// wider than the line is written at once, with what stands before it in `line`.
char *put_units(char *line, char *to, const unsigned char *bytes, int64_t at, int64_t end,
                int width) {
    for (int64_t unit = (at + width - 1) / width * width; unit < at + kLineBytes; unit += width) {
        if (width > kLineBytes) {
            int digits = width <= INT_MAX / 2 ? 2 * width : INT_MAX;
            fwrite(line, 1, static_cast<size_t>(to - line), stdout);
            to = line;
            if (unit < end)
                printf("%0*d", digits, 0);
            else
                printf("%*s", digits, "");
        } else if (unit < end) {
            to = put_unit(to, bytes + unit, width);
        } else {
            to = put_blanks(to, 2 * width);
        }
        *to++ = ' ';
    }
    return to;
}

char *put_bytes(char *to, const unsigned char *bytes, int count) {
#pragma GCC unroll 4
    for (int i = 0; i < count; ++i) {
        to = put_byte(to, bytes[i]);
        *to++ = ' ';
    }
    return put_blanks(to, 3 * (kLineBytes - count));
}

// What a dump shows of a byte; the locale is asked once a dump about each.
class Characters {
  public:
    char shown(unsigned char byte) {
        char &known = known_[byte];
        if (known == '\0')
            known = isprint(byte) != 0 ? static_cast<char>(byte) : '.';
        return known;
    }

  private:
    char known_[256] = {};
};

// One line of printMem(): up to 16 bytes, a multiple of 4.
void print_word_line(const unsigned char *bytes, int count) {
    uint32_t word = 0;  // in the machine's byte order
    for (int at = 0; at < kLineBytes; at += static_cast<int>(sizeof word)) {
        if (at < count) {
            memcpy(&word, bytes + at, sizeof word);
            printf("%.8x ", word);
        } else {
            printf("%9s", "");
        }
    }
    char text[kLineBytes];
    for (int at = 0; at < count; ++at)
        text[at] = bytes[at] >= 0x20 && bytes[at] <= 0x7e ? static_cast<char>(bytes[at]) : '.';
    printf("  *%-*.*s*\n", kLineBytes, count, text);
}

// The digits of `number`, the most significant first, each as a decimal number.
int format_digits(char (&text)[SPRINT64_ROOM], uint64_t number, uint32_t base) {
    uint32_t digits[64];
    int count = 0;
    for (; number != 0; number /= base)
        digits[count++] = static_cast<uint32_t>(number % base);
    int length = 0;
    // Kept: a digit above 9 is two decimal digits.
    while (count > 0)
        length += snprintf(text + length, sizeof text - static_cast<size_t>(length), "%u",
                           digits[--count]);
    return length;
}

int format_number(char (&text)[SPRINT64_ROOM], unsigned high, unsigned low, int base) {
    if (base <= 1)
        base = 10;
    if (high != 0 && base == 16)
        return snprintf(text, sizeof text, "0x%x%08x", high, low);
    if (high != 0)
        return format_digits(text, uint64_t{high} << 32 | low, static_cast<uint32_t>(base));
    if (base == 16)
        return snprintf(text, sizeof text, "0x%x", low);
    return snprintf(text, sizeof text, base == 8 ? "%o" : "%u", low);
}

// As scanf() reads it, sign included, wherever `unsigned long` is as wide as `unsigned`.
uint32_t parse_hexadecimal(const char *text) {
    constexpr unsigned long long kMost = UINT32_MAX;
    unsigned long long bits = strtoull(text, nullptr, 16);
    bool negative = text[strspn(text, " \t\n\v\f\r")] == '-';
    unsigned long long magnitude = negative ? 0 - bits : bits;
    return static_cast<uint32_t>(magnitude > kMost ? kMost : bits);  // two's complement
}

int not_ported(const char *message) {
    return printf("%s\n", message);
}

}  // namespace
}  // namespace utils

using namespace utils;

int more(void) {
    if (paging_off.load(kRelaxed)) {
        taskDelay(MORE_OFF_TICKS);
        return 1;
    }
    printf("\nType <CR> to continue, Q<CR> to stop: ");
    fflush(stdout);
    char answer[80];
    if (fgets(answer, sizeof answer, stdin) == nullptr)
        return 0;
    return answer[0] == 'q' || answer[0] == 'Q' ? 0 : 1;
}

void moreDisable(void) {
    paging_off.store(true, kRelaxed);
}

void moreEnable(void) {
    paging_off.store(false, kRelaxed);
}

int kbhit(int seconds) {
    fd_set input;
    FD_ZERO(&input);
    FD_SET(STDIN_FILENO, &input);
    timeval limit{seconds, 0};
    return select(STDIN_FILENO + 1, &input, nullptr, nullptr, &limit) > 0 ? 1 : 0;
}

void memDump(void *address, int count, int width) {
    if (address == nullptr)
        return;
    auto *bytes = static_cast<const unsigned char *>(address);
    if (width <= 0)
        width = 1;
    if (count <= 0)
        count = kDefaultUnits;
    int64_t end = int64_t{count} * width;
    Characters characters;
    for (int64_t at = 0; at < end; at += kLineBytes) {
        char line[kLineRoom];
        const unsigned char *from = bytes + at;
        char *to = put_address(line, from);
        if (width == 1)
            to = put_bytes(to, from, static_cast<int>(std::min<int64_t>(end - at, kLineBytes)));
        else
            to = put_units(line, to, bytes, at, end, width);
        *to++ = '*';
#pragma GCC unroll 4
        for (int i = 0; i < kLineBytes; ++i)
            *to++ = characters.shown(from[i]);
        *to++ = '*';
        *to++ = '\n';
        fwrite(line, 1, static_cast<size_t>(to - line), stdout);
    }
}

void display_mem(void *address, int count, int width) {
    if (count < 0 || (width > 2 && width != 4 && width != 8))
        return;
    memDump(address, count, width);
}

void printMem(void *address, int len) {
    auto *bytes = static_cast<const unsigned char *>(address);
    for (; bytes != nullptr && len > 0; bytes += kLineBytes, len -= kLineBytes)
        print_word_line(bytes, (std::min(len, kLineBytes) + 3) / 4 * 4);
}

int sprint64(char *text, unsigned high, unsigned low, int base) {
    if (text == nullptr)
        return 0;
    char number[SPRINT64_ROOM];
    int length = format_number(number, high, low, base);
    memcpy(text, number, static_cast<size_t>(length) + 1);
    return length;
}

int print64(unsigned high, unsigned low, int base) {
    char number[SPRINT64_ROOM];
    format_number(number, high, low, base);
    return printf("%s", number);
}

int str2num(const char *text) {
    using Limits = std::numeric_limits<int32_t>;
    if (text == nullptr)
        return 0;
    if (strnlen(text, 3) > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        return static_cast<int>(parse_hexadecimal(text + 2));
    }
    long long number = 0;
    sscanf(text, "%lld", &number);
    return static_cast<int>(std::clamp<long long>(number, Limits::min(), Limits::max()));
}

// Comparing whole texts tells at the first byte already, and never looks behind an empty one.
int strequ(const char *a, const char *b) {
    return a != nullptr && b != nullptr && strcmp(a, b) == 0 ? 1 : 0;
}

const char *val(const char *text) {
    return text != nullptr ? text : "";
}

unsigned eswap(unsigned x) {
    return x;
}

int chkAccess(void) {
    return geteuid() == 0 ? 0 : -1;
}

int utilGetUserLevel(void) {
    return 0;
}

int probe(uintptr_t x) {
    return sysProbe(x);
}

int getLine(void) {
    not_ported("getLine() not ported");
    return 0;
}

int less(void) {
    return not_ported("less() not ported");
}

int peek(void) {
    // Kept: the name in the text is misspelt.
    not_ported("peak() not ported");
    return 0;
}

int peekl(void) {
    not_ported("peekl() not ported");
    return 0;
}

int poke(void) {
    not_ported("poke() not ported");
    return 0;
}

int pokel(void) {
    not_ported("pokel() not supported");
    return 0;
}
