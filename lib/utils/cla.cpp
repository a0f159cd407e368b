// SPDX-License-Identifier: Apache-2.0
// The command-line filter and the parsers of the values that commands take. Nothing is kept between
// calls; vectors and texts belong to the caller, and only what the header says is changed.
#include "utils/cla.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/text.h"

static_assert(offsetof(claFltrEntry, letter) == 0 &&
              offsetof(claFltrEntry, name) == sizeof(void *) &&
              offsetof(claFltrEntry, handler) == 2 * sizeof(void *) &&
              sizeof(claFltrEntry) == 4 * sizeof(void *));

namespace utils {
namespace {

constexpr int kPicLetterBase = 0x40;
constexpr int kCaseBit = 0x20;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// What may stand behind a number; the terminator is among it.
bool ends_number(char c) {
    return strchr(" \t\n\r,", c) != nullptr;
}

struct Number {
    int32_t value;
    char *end;  // the text's begin when nothing was converted
};

// The base is found here and not by the C library, whose newer versions know binary numbers too.
Number parse_number(char *text) {
    const char *digits = text;
    while (isspace(static_cast<unsigned char>(*digits)) != 0)
        ++digits;
    if (*digits == '+' || *digits == '-')
        ++digits;
    int base = 10;
    if (*digits == '0')
        base = digits[1] == 'x' || digits[1] == 'X' ? 16 : 8;
    Number number{};
    using Limits = std::numeric_limits<int32_t>;
    long long value = strtoll(text, &number.end, base);
    number.value = static_cast<int32_t>(std::clamp<long long>(value, Limits::min(), Limits::max()));
    return number;
}

// Skips leading zeros, but keeps the last one before a slash: "000/5" is slot 0.
char *skip_slot_zeros(char *text) {
    char *slot = text;
    while (*slot == '0')
        ++slot;
    return *slot == '/' && slot > text ? slot - 1 : slot;
}

// Skips leading zeros that a further digit follows.
char *skip_port_zeros(char *port) {
    while (*port == '0' && is_digit(port[1]))
        ++port;
    return port;
}

// How many arguments `table` takes at `option`, which begins with '-': 0, 1, or 2 with `next`.
int taken_at(const claFltrEntry *table, const char *option, const char *next) {
    const char *cursor = option + 1;
    for (; table->handler != nullptr; ++table) {
        if (*cursor != '-') {
            if (*cursor == '\0' || *cursor != table->letter)
                continue;
            // Kept: a record that refuses a letter has moved the place for those after it.
            ++cursor;
            if (*cursor != '\0') {
                if (table->handler(cursor, table->arg) == 0)
                    return 1;
                continue;
            }
        } else if (table->name == nullptr || strcmp(cursor + 1, table->name) != 0) {
            continue;
        }
        if (next != nullptr && table->handler(next, table->arg) == 0)
            return 2;
    }
    return 0;
}

// Splits "slot/port"; null when `text` has another form, else the port text.
char *split_slot_port(char *text, int32_t *slot) {
    char *digits = skip_slot_zeros(text);
    Number number = parse_number(digits);
    if (number.end == digits || *number.end != '/')
        return nullptr;
    char *port = skip_port_zeros(number.end + 1);
    Number port_number = parse_number(port);
    if (port_number.end == port || !ends_number(*port_number.end))
        return nullptr;
    *slot = number.value;
    return port;
}

// The pieces of slot/port, slot/pic/port or pic/port.
struct Place {
    bool has_slot;
    bool has_pic;
    int32_t slot;
    int pic;
    char *port;
};

// Reads [slot/][pic/]port; the port's own digits are the caller's to read.
int parse_place(char *text, Place *place) {
    char *pic = text;
    char *slash = strchr(text, '/');
    if (is_digit(*text)) {
        Number number = parse_number(skip_slot_zeros(text));
        if (number.end != slash)
            return CLA_ERR_FORM;
        place->has_slot = true;
        place->slot = number.value;
        pic = slash + 1;
        slash = strchr(pic, '/');
    }
    if (slash == nullptr) {
        if (*pic == '\0')
            return CLA_ERR_NO_PORT;
        place->port = skip_port_zeros(pic);
        return 0;
    }
    if (slash - pic > 1)
        return CLA_ERR_FORM;
    place->has_pic = slash != pic;
    place->pic = (static_cast<unsigned char>(*pic) & ~kCaseBit) - kPicLetterBase;
    place->port = skip_port_zeros(strrchr(slash, '/') + 1);
    return 0;
}

}  // namespace
}  // namespace utils

using namespace utils;

int claFltr(claFltrEntry *table, int *argc, char **argv) {
    if (table == nullptr || table->handler == nullptr || argc == nullptr || argv == nullptr)
        return CLA_ERR_FORM;
    if (*argc > 0 && argv[0] != nullptr) {
        if (char *slash = strrchr(argv[0], '/'); slash != nullptr)
            argv[0] = slash + 1;
    }
    for (int at = 1; at < *argc && argv[at] != nullptr;) {
        const char *next = at + 1 < *argc ? argv[at + 1] : nullptr;
        int taken = argv[at][0] == '-' ? taken_at(table, argv[at], next) : 0;
        if (taken == 0) {
            ++at;
            continue;
        }
        // The null behind the last argument moves along.
        std::copy(argv + at + taken, argv + *argc + 1, argv + at);
        *argc -= taken;
    }
    return 0;
}

int clafGetInt(const char *text, void *out) {
    if (text == nullptr || !is_digit(*text))
        return CLA_NOT_A_NUMBER;
    Number number = parse_number(const_cast<char *>(text));
    if (!ends_number(*number.end))
        return CLA_NOT_A_NUMBER;
    if (out != nullptr)
        *static_cast<int32_t *>(out) = number.value;
    return 0;
}

int clafGetShort(const char *text, void *out) {
    int32_t value = 0;
    if (int result = clafGetInt(text, &value); result != 0)
        return result;
    if (out != nullptr)
        *static_cast<uint16_t *>(out) = static_cast<uint16_t>(value);
    return 0;
}

int clafArgPresent(int argc, char **argv, const char *keyword) {
    if (argc < 1 || argv == nullptr)
        return CLA_ERR_FORM;
    for (int at = 0; at < argc; ++at) {
        if (argv[at] != nullptr && keyword != nullptr && same_word(argv[at], keyword))
            return 1;
    }
    return 0;
}

int clafSlotSlashPort(int argc, char **argv, int *slot) {
    if (argc < 1 || argv == nullptr)
        return CLA_ERR_FORM;
    int32_t found = 0;
    for (int at = 0; at < argc; ++at) {
        char *port = argv[at] != nullptr ? split_slot_port(argv[at], &found) : nullptr;
        if (port == nullptr)
            continue;
        argv[at] = port;
        if (slot != nullptr)
            *slot = found;
        break;
    }
    return 0;
}

int clafSlotSlashPicSlashPort(int argc, char **argv, int *slot, int *pic) {
    if (argc < 1 || argv == nullptr)
        return CLA_ERR_FORM;
    bool free_text = argc > 2 && argv[0] != nullptr && same_word(argv[0], "portName");
    int examined = free_text ? 2 : argc;
    for (int at = 0; at < examined; ++at) {
        if (argv[at] == nullptr || strchr(argv[at], '/') == nullptr)
            continue;
        Place place{};
        if (int result = parse_place(argv[at], &place); result != 0)
            return result;
        argv[at] = place.port;
        if (place.has_slot && slot != nullptr)
            *slot = place.slot;
        if (place.has_pic && pic != nullptr)
            *pic = place.pic;
        break;
    }
    return 0;
}

int claReparse(int argc, char **argv, char **out, int capacity, const char *separators) {
    if (out == nullptr)
        return CLA_ERR_NO_ARGS;
    if (separators == nullptr)
        separators = " \t,";
    int tokens = 0;
    int result = argc > 0 && argv != nullptr ? 0 : CLA_ERR_NO_ARGS;
    for (int at = 0; result == 0 && at < argc; ++at) {
        char *token = argv[at];
        while (token != nullptr && *(token += strspn(token, separators)) != '\0') {
            if (tokens >= capacity) {
                result = CLA_ERR_TOO_MANY;
                break;
            }
            out[tokens++] = token;
            token += strcspn(token, separators);
            if (*token != '\0')
                *token++ = '\0';
        }
    }
    out[tokens] = nullptr;
    return result != 0 ? result : tokens;
}
