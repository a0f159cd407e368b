// Page prompt, dumps, 64-bit numbers and the small helpers of console commands. The paging switch
// is the only state; a relaxed atomic, since any thread may turn it.
#include "utils/paging.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "utils/clock.h"
#include "utils/task.h"

namespace utils {
namespace {

constexpr int kLineBytes = 16;
constexpr int kDefaultUnits = 256;

std::atomic<bool> paging_off{false};

// The unit of `width` bytes at `from`, in the machine's byte order; 0 for a width that is no
// word's.
uint32_t load_unit(const unsigned char *from, int width) {
    uint16_t half = 0;
    uint32_t word = 0;
    switch (width) {
        case 1:
            return *from;
        case sizeof half:
            memcpy(&half, from, sizeof half);
            return half;
        case sizeof word:
            memcpy(&word, from, sizeof word);
            return word;
        default:
            return 0;
    }
}

// The character column of a dump: collects a line's bytes and ends the line after the last.
class Column {
  public:
    bool at_line_start() const { return used_ == 0; }
    void add(unsigned char byte) {
        text_[used_++] = isprint(byte) != 0 ? static_cast<char>(byte) : '.';
        if (used_ == kLineBytes) {
            printf("*%s*\n", text_);
            used_ = 0;
        }
    }

  private:
    char text_[kLineBytes + 1] = {};
    int used_ = 0;
};

// One line of printMem(): up to 16 bytes, a multiple of 4.
void print_word_line(const unsigned char *bytes, int count) {
    constexpr int kWordBytes = 4;
    for (int at = 0; at < kLineBytes; at += kWordBytes) {
        if (at < count)
            printf("%.8x ", load_unit(bytes + at, kWordBytes));
        else
            printf("%9s", "");
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

int more(void) {
    if (utils::paging_off.load(std::memory_order_relaxed)) {
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
    utils::paging_off.store(true, std::memory_order_relaxed);
}

void moreEnable(void) {
    utils::paging_off.store(false, std::memory_order_relaxed);
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
        count = utils::kDefaultUnits;
    int digits = width <= INT_MAX / 2 ? 2 * width : INT_MAX;
    int64_t end = int64_t{count} * width;
    int64_t padded = (end + utils::kLineBytes - 1) / utils::kLineBytes * utils::kLineBytes;
    utils::Column column;
    for (int64_t at = 0; at < padded; ++at) {
        if (column.at_line_start())
            printf("%08" PRIxPTR ": ", reinterpret_cast<uintptr_t>(bytes + at));
        if (at % width == 0) {
            if (at < end)
                printf("%.*x ", digits, utils::load_unit(bytes + at, width));
            else
                printf("%*s ", digits, "  ");
        }
        column.add(bytes[at]);
    }
}

void display_mem(void *address, int count, int width) {
    if (count < 0 || (width > 2 && width != 4 && width != 8))
        return;
    memDump(address, count, width);
}

void printMem(void *address, int len) {
    auto *bytes = static_cast<const unsigned char *>(address);
    for (; bytes != nullptr && len > 0; bytes += utils::kLineBytes, len -= utils::kLineBytes)
        utils::print_word_line(bytes, (std::min(len, utils::kLineBytes) + 3) / 4 * 4);
}

int sprint64(char *text, unsigned high, unsigned low, int base) {
    if (text == nullptr)
        return 0;
    char number[SPRINT64_ROOM];
    int length = utils::format_number(number, high, low, base);
    memcpy(text, number, static_cast<size_t>(length) + 1);
    return length;
}

int print64(unsigned high, unsigned low, int base) {
    char number[SPRINT64_ROOM];
    utils::format_number(number, high, low, base);
    return printf("%s", number);
}

int str2num(const char *text) {
    using Limits = std::numeric_limits<int32_t>;
    if (text == nullptr)
        return 0;
    if (strnlen(text, 3) > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        return static_cast<int>(utils::parse_hexadecimal(text + 2));
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
    utils::not_ported("getLine() not ported");
    return 0;
}

int less(void) {
    return utils::not_ported("less() not ported");
}

int peek(void) {
    utils::not_ported("peak() not ported");
    return 0;
}

int peekl(void) {
    utils::not_ported("peekl() not ported");
    return 0;
}

int poke(void) {
    utils::not_ported("poke() not ported");
    return 0;
}

int pokel(void) {
    utils::not_ported("pokel() not supported");
    return 0;
}
