// SPDX-License-Identifier: Apache-2.0
// The typed value prompt: one loop of prompt, line and check, with a prompt and a check for each
// type. Nothing is kept between calls. Every check answers 1 or 0,
// the result of the call, or kAgain.
#include "utils/getval.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>

static_assert(offsetof(getvalDesc, type) == 0 && offsetof(getvalDesc, value) == sizeof(void *) &&
              offsetof(getvalDesc, min) == 2 * sizeof(void *));
static_assert(sizeof(void *) != 4 ||
              (offsetof(getvalDesc, max) == 12 && offsetof(getvalDesc, multiple) == 16 &&
               sizeof(getvalDesc) == 20));

namespace utils {
namespace {

constexpr int kAgain = -2;
constexpr int kWwnBytes = 8;
constexpr unsigned char kBackspace = 0x08;

// A line of input without assuming that it holds no NUL.
struct Line {
    char text[300];
    size_t length;

    std::string_view view() const { return {text, length}; }
    void cut_last() {
        if (length > 0)
            text[--length] = '\0';
    }
};

int32_t &number_of(const getvalDesc &desc) {
    return *static_cast<int32_t *>(desc.value);
}

#ifdef __powerpc__

// The terminal record of the target's kernel and its two requests.
struct OldTerminal {
    unsigned char input_speed, output_speed, erase, kill;
    int16_t flags;
};
static_assert(sizeof(OldTerminal) == 6);
constexpr unsigned long kGetOldTerminal = 0x40067408;
constexpr unsigned long kSetOldTerminal = 0x80067409;

void set_erase_character() {
    OldTerminal terminal{};
    if (ioctl(STDIN_FILENO, kGetOldTerminal, &terminal) != 0)
        return;
    terminal.erase = kBackspace;
    ioctl(STDIN_FILENO, kSetOldTerminal, &terminal);
}

#else

void set_erase_character() {
    termios terminal{};
    if (tcgetattr(STDIN_FILENO, &terminal) != 0)
        return;
    terminal.c_cc[VERASE] = kBackspace;
    tcsetattr(STDIN_FILENO, TCSANOW, &terminal);
}

#endif

bool read_line(Line &line) {
    // The last NUL is the terminator, since nothing that was there before is one.
    memset(line.text, '\n', sizeof line.text);
    if (fgets(line.text, sizeof line.text, stdin) == nullptr)
        return false;
    auto *end = static_cast<char *>(memrchr(line.text, '\0', sizeof line.text));
    line.length = static_cast<size_t>(end - line.text);
    return true;
}

void discard_line() {
    for (int c = getc(stdin); c != '\n' && c != EOF;)
        c = getc(stdin);
}

int refuse() {
    printf("Input not acceptable, please re-enter\n");
    return kAgain;
}

int refuse_size(const getvalDesc &desc) {
    printf("string size must be between %d and %d - please re-enter\n", desc.min, desc.max);
    return kAgain;
}

int refuse_hex_range(const char *what, const getvalDesc &desc) {
    printf("%s must be between 0x%x and 0x%x - please re-enter\n", what,
           static_cast<unsigned>(desc.min), static_cast<unsigned>(desc.max));
    return kAgain;
}

// Numbers are compared in 64 bits, so that a line with a larger one is out of range and not cut.
bool in_range(const getvalDesc &desc, int64_t value) {
    return value >= desc.min && value <= desc.max;
}

bool is_multiple(const getvalDesc &desc, int64_t value) {
    return desc.multiple == 0 || value % desc.multiple == 0;
}

int store_number(const getvalDesc &desc, int64_t value) {
    auto number = static_cast<int32_t>(value);
    if (number == number_of(desc))
        return 0;
    number_of(desc) = number;
    return 1;
}

bool has_hex_prefix(const Line &line) {
    return line.length > 1 && line.text[0] == '0' && (line.text[1] == 'x' || line.text[1] == 'X');
}

// Whether all characters from `from` on are of a class; a line of one character must be a digit.
bool all_of(const Line &line, size_t from, int (*is_class)(int)) {
    if (line.length == 1 && isdigit(static_cast<unsigned char>(line.text[0])) == 0)
        return false;
    for (size_t at = from; at < line.length; ++at) {
        if (is_class(static_cast<unsigned char>(line.text[at])) == 0)
            return false;
    }
    return true;
}

// A hexadecimal number of 32 bits is taken as signed; a larger one is out of every range.
bool convert_hex(const Line &line, int64_t *value) {
    unsigned long long bits = 0;
    if (sscanf(line.text, "%llx", &bits) != 1)
        return false;
    bool fits = bits <= std::numeric_limits<uint32_t>::max();
    *value = fits ? static_cast<int32_t>(static_cast<uint32_t>(bits))
                  : std::numeric_limits<int64_t>::max();
    return true;
}

bool convert_decimal(const Line &line, int64_t *value) {
    long long number = 0;
    bool done = sscanf(line.text, "%lld", &number) == 1;
    *value = number;
    return done;
}

// Kept: a leading 0 means octal.
// Decimal, or octal behind a 0.
bool convert_any(const Line &line, int64_t *value) {
    long long number = 0;
    bool done = sscanf(line.text, "%lli", &number) == 1;
    *value = number;
    return done;
}

// Whole numbers and key lengths.
int accept_decimal(const getvalDesc &desc, const Line &line) {
    int64_t value = 0;
    if (!all_of(line, line.text[0] == '-' ? 1 : 0, isdigit))
        return refuse();
    if (!convert_decimal(line, &value))
        return 0;
    if (!in_range(desc, value)) {
        printf("integer must be between %d and %d - please re-enter\n", desc.min, desc.max);
        return kAgain;
    }
    if (desc.type == GETVAL_KEY_LEN && value != 40 && value != 56 && value != 128) {
        printf("Invalid key length [%d]. Must be 40, 56, or 128.\n", static_cast<int>(value));
        return kAgain;
    }
    if (desc.type == GETVAL_INT && !is_multiple(desc, value)) {
        printf("integer must be a multiple of %d - please re-enter\n", desc.multiple);
        return kAgain;
    }
    return store_number(desc, value);
}

// Hexadecimal behind 0x, else decimal digits.
int accept_hex(const getvalDesc &desc, const Line &line) {
    int64_t value = 0;
    bool prefix = has_hex_prefix(line);
    if (!all_of(line, prefix ? 2 : 0, prefix ? isxdigit : isdigit))
        return refuse();
    if (prefix ? !convert_hex(line, &value) : !convert_any(line, &value))
        return 0;
    if (!in_range(desc, value))
        return refuse_hex_range("integer", desc);
    if (!is_multiple(desc, value)) {
        printf("integer must be a multiple of 0x%x - please re-enter\n",
               static_cast<unsigned>(desc.multiple));
        return kAgain;
    }
    return store_number(desc, value);
}

// Kept: a single hexadecimal letter is no port.
int accept_port_id(const getvalDesc &desc, const Line &line) {
    int64_t value = 0;
    if (!all_of(line, has_hex_prefix(line) ? 2 : 0, isxdigit))
        return refuse();
    if (!convert_hex(line, &value))
        return 0;
    if (!in_range(desc, value))
        return refuse_hex_range("port ID", desc);
    if (!is_multiple(desc, value)) {
        // In decimal, although the number was typed in hexadecimal.
        printf("integer must be a multiple of %d - please re-enter\n", desc.multiple);
        return kAgain;
    }
    return store_number(desc, value);
}

// The words of the type, in either case.
int accept_boolean(const getvalDesc &desc, Line &line) {
    static constexpr struct {
        std::string_view word;
        int32_t type;
        int value;
    } kWords[] = {
        {"true", GETVAL_TRUE_FALSE, 1},  {"t", GETVAL_TRUE_FALSE, 1},
        {"false", GETVAL_TRUE_FALSE, 0}, {"f", GETVAL_TRUE_FALSE, 0},
        {"yes", GETVAL_YES_NO, 1},       {"y", GETVAL_YES_NO, 1},
        {"no", GETVAL_YES_NO, 0},        {"n", GETVAL_YES_NO, 0},
        {"on", GETVAL_ON_OFF, 1},        {"off", GETVAL_ON_OFF, 0},
    };
    for (size_t at = 0; at < line.length; ++at)
        line.text[at] = static_cast<char>(tolower(static_cast<unsigned char>(line.text[at])));
    for (const auto &known : kWords) {
        if (known.type == desc.type && known.word == line.view())
            return store_number(desc, known.value);
    }
    return refuse();
}

int store_text(const getvalDesc &desc, const Line &line) {
    auto *current = static_cast<char *>(desc.value);
    if (strcmp(line.text, current) == 0)
        return 0;
    memcpy(current, line.text, line.length + 1);
    return 1;
}

// A text without its line end was longer than the line holds; words lose the blanks before them.
int accept_text(const getvalDesc &desc, Line &line) {
    if (line.view().empty() || line.view().back() != '\n') {
        refuse_size(desc);
        discard_line();
        return kAgain;
    }
    line.cut_last();
    if (desc.type != GETVAL_STRING) {
        size_t blanks = strspn(line.text, " \t");
        line.length -= blanks;
        memmove(line.text, line.text + blanks, line.length + 1);
    }
    auto length = static_cast<int>(line.length);
    if (length < desc.min || length > desc.max)
        return refuse_size(desc);
    for (char c : line.view()) {
        if (iscntrl(static_cast<unsigned char>(c)) != 0 || (desc.type == GETVAL_WORD && c == ' '))
            return refuse();
    }
    return store_text(desc, line);
}

// Four numbers and three dots; 0.0.0.0 stands for none.
int accept_address(const getvalDesc &desc, const Line &line) {
    if (line.view() == "0.0.0.0")
        return store_text(desc, line);
    if (line.length == 0 || isdigit(static_cast<unsigned char>(line.text[line.length - 1])) == 0)
        return refuse();
    long long part[4];
    int used = 0;
    int parts =
        sscanf(line.text, "%lld.%lld.%lld.%lld%n", &part[0], &part[1], &part[2], &part[3], &used);
    auto within = [](long long n, long long low, long long high) { return n >= low && n <= high; };
    bool net = desc.type == GETVAL_IP_NET;
    bool good = parts == 4 && static_cast<size_t>(used) == line.length && within(part[0], 1, 254) &&
                within(part[1], 0, 255) && within(part[2], 0, 255) &&
                within(part[3], net ? 0 : 1, net ? 255 : 254);
    return good ? store_text(desc, line) : refuse();
}

// Eight bytes, each within the bounds.
int accept_wwn(const getvalDesc &desc, const Line &line) {
    unsigned part[kWwnBytes];
    int parts = sscanf(line.text, "%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x", &part[0], &part[1], &part[2],
                       &part[3], &part[4], &part[5], &part[6], &part[7]);
    if (parts != kWwnBytes)
        return refuse();
    for (unsigned byte : part) {
        if (!in_range(desc, static_cast<int32_t>(byte)))
            return refuse();
    }
    // Kept: a name counts as new even when it is the current one.
    auto *name = static_cast<unsigned char *>(desc.value);
    for (unsigned byte : part)
        *name++ = static_cast<unsigned char>(byte);
    return 1;
}

void prompt_wwn(const char *label, const getvalDesc &desc) {
    auto *name = static_cast<const unsigned char *>(desc.value);
    printf("%s (in hex): [%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x] ", label, name[0], name[1],
           name[2], name[3], name[4], name[5], name[6], name[7]);
}

// What is asked for, its bounds, and the value that Enter keeps.
void prompt(const char *label, const getvalDesc &desc) {
    auto *value = static_cast<const int32_t *>(desc.value);
    auto min = static_cast<unsigned>(desc.min);
    auto max = static_cast<unsigned>(desc.max);
    switch (desc.type) {
        case GETVAL_INT:
        case GETVAL_KEY_LEN:
            printf("%s: (%d..%d) [%d] ", label, desc.min, desc.max, *value);
            break;
        case GETVAL_HEX:
            printf("%s: (0x%x..0x%x) [0x%x] ", label, min, max, static_cast<unsigned>(*value));
            break;
        case GETVAL_PORT_ID:
            printf("%s: (0x%x..0x%x) [%x] 0x", label, min, max, static_cast<unsigned>(*value));
            break;
        case GETVAL_TRUE_FALSE:
            printf("%s (true, t, false, f): [%s] ", label, *value == 1 ? "true" : "false");
            break;
        case GETVAL_YES_NO:
            printf("%s (yes, y, no, n): [%s] ", label, *value == 1 ? "yes" : "no");
            break;
        case GETVAL_ON_OFF:
            printf("%s (on, off): [%s] ", label, *value == 1 ? "on" : "off");
            break;
        case GETVAL_WWN:
            prompt_wwn(label, desc);
            break;
        default:
            printf("%s: [%s] ", label, static_cast<const char *>(desc.value));
    }
    fflush(stdout);
}

bool is_text(int32_t type) {
    return type == GETVAL_STRING || type == GETVAL_STRING_TRIM || type == GETVAL_STRING_TRIM_23 ||
           type == GETVAL_WORD;
}

bool is_known(int32_t type) {
    return (type >= GETVAL_INT && type <= GETVAL_PORT_ID) ||
           (type >= GETVAL_STRING_TRIM && type <= GETVAL_IP_HOST_13) || type == GETVAL_IP_NET ||
           type == GETVAL_KEY_LEN || (type >= GETVAL_WWN && type <= GETVAL_STRING_TRIM_23);
}

// What the type makes of the line: a new value, the old one, or another prompt.
int take_answer(const getvalDesc &desc, Line &line) {
    if (is_text(desc.type))
        return accept_text(desc, line);
    line.cut_last();
    switch (desc.type) {
        case GETVAL_INT:
        case GETVAL_KEY_LEN:
            return accept_decimal(desc, line);
        case GETVAL_HEX:
            return accept_hex(desc, line);
        case GETVAL_PORT_ID:
            return accept_port_id(desc, line);
        case GETVAL_WWN:
            return accept_wwn(desc, line);
        case GETVAL_IP_HOST:
        case GETVAL_IP_HOST_13:
        case GETVAL_IP_NET:
            return accept_address(desc, line);
        default:
            return accept_boolean(desc, line);
    }
}

}  // namespace
}  // namespace utils

using namespace utils;

int getval(const char *label, getvalDesc *desc) {
    if (label == nullptr || desc == nullptr || desc->value == nullptr || desc->min > desc->max)
        return -1;
    if (feof(stdin) != 0)
        return 0;
    set_erase_character();
    if (!is_known(desc->type))
        return 0;
    Line line;
    int result = kAgain;
    while (result == kAgain) {
        prompt(label, *desc);
        if (!read_line(line) || line.text[0] == '\n')
            return 0;
        result = take_answer(*desc, line);
    }
    return result;
}
