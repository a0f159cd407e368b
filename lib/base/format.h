// SPDX-License-Identifier: Apache-2.0
// vsnprintf() for what log lines are made of: %d, %u, %x, %s, %c and %%, with widths and the flags
// '-' and '0'. Any other format goes to vsnprintf() as a whole. The text is the same to the byte.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace utils {

// One directive behind its '%', and the text that its value gives.
struct Directive {
    static constexpr size_t kWidthMost = 4096;

    bool left = false;
    bool zeros = false;
    char conversion = '\0';
    size_t width = 0;
    const char *text = nullptr;
    size_t length = 0;
    char digits[sizeof "-2147483648"];

    // Returns what follows the directive.
    const char *parse(const char *from) {
        for (; *from == '-' || *from == '0'; ++from)
            (*from == '-' ? left : zeros) = true;
        for (; *from >= '0' && *from <= '9' && width < kWidthMost; ++from)
            width = width * 10 + static_cast<size_t>(*from - '0');
        conversion = *from;
        return from + 1;
    }
    void set_number(unsigned number) {
        char *end = digits + sizeof digits;
        char *first = end;
        const bool minus = conversion == 'd' && static_cast<int>(number) < 0;
        if (minus)
            number = 0 - number;
        if (conversion == 'x') {
            do
                *--first = "0123456789abcdef"[number % 16];
            while ((number /= 16) != 0);
        } else {
            do
                *--first = static_cast<char>('0' + number % 10);
            while ((number /= 10) != 0);
        }
        if (minus)
            *--first = '-';
        text = first;
        length = static_cast<size_t>(end - first);
    }
    // False for a directive that is not as simple as that.
    bool take(va_list *values) {
        switch (conversion) {
            case 'd':
            case 'u':
            case 'x':
                set_number(va_arg(*values, unsigned));
                return true;
            case 's':
                text = va_arg(*values, const char *);
                length = text != nullptr ? strlen(text) : 0;
                return text != nullptr && !zeros;
            case 'c':
                digits[0] = static_cast<char>(va_arg(*values, int));
                text = digits;
                length = 1;
                return !zeros;
            case '%':
                text = "%";
                length = 1;
                return !zeros && !left && width == 0;
            default:
                return false;
        }
    }
};

// The length of the text, of which `last` characters fit; -1 for a format that is not simple.
inline int format_simply(char *to, size_t last, const char *format, va_list *values) {
    size_t length = 0;
    auto put = [&](const char *text, size_t n) {
        if (length < last)
            memcpy(to + length, text, std::min(n, last - length));
        length += n;
    };
    auto fill = [&](char c, size_t n) {
        if (length < last)
            memset(to + length, c, std::min(n, last - length));
        length += n;
    };
    while (*format != '\0') {
        if (*format != '%') {
            if (length < last)
                to[length] = *format;
            ++length;
            ++format;
            continue;
        }
        Directive directive;
        format = directive.parse(format + 1);
        if (!directive.take(values))
            return -1;
        size_t padding =
            directive.width > directive.length ? directive.width - directive.length : 0;
        if (padding > 0 && !directive.left) {
            if (directive.zeros && *directive.text == '-') {
                put(directive.text++, 1);
                --directive.length;
            }
            fill(directive.zeros ? '0' : ' ', padding);
        }
        put(directive.text, directive.length);
        if (padding > 0 && directive.left)
            fill(' ', padding);
    }
    to[std::min(length, last)] = '\0';
    return length <= INT_MAX ? static_cast<int>(length) : -1;
}

// As vsnprintf().
__attribute__((noinline, format(printf, 3, 0))) inline int format_text(char *to, size_t size,
                                                                       const char *format,
                                                                       va_list values) {
    int length = -1;
    if (size > 0) {
        va_list simple;
        va_copy(simple, values);
        length = format_simply(to, size - 1, format, &simple);
        va_end(simple);
    }
    return length >= 0 ? length : vsnprintf(to, size, format, values);
}

}  // namespace utils
