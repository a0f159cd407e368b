// SPDX-License-Identifier: Apache-2.0
// Bounded text: every copy is cut to its room and terminated.
#pragma once

#include <cstring>

namespace utils {

// Copies `text` (null counts as "") into the `size` bytes at `to`, cut and terminated; pads with
// zeros, so that no old bytes stay in a record. The text may lie in the record itself.
inline void copy_text(char *to, size_t size, const char *text) {
    size_t length = text != nullptr ? strnlen(text, size - 1) : 0;
    if (length > 0)
        memmove(to, text, length);
    memset(to + length, 0, size - length);
}

template <size_t size>
void copy_text(char (&to)[size], const char *text) {
    copy_text(to, size, text);
}

// Whether two words differ in nothing but the case of A to Z, in every locale: in a Turkish one
// strcasecmp() takes I for another letter than i.
inline bool same_word(const char *one, const char *other) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : int{c}; };
    while (*one != '\0' && lower(*one) == lower(*other))
        ++one, ++other;
    return lower(*one) == lower(*other);
}

// A bounded text that a signal handler may build.
class SafeText {
  public:
    SafeText &operator<<(const char *text) {
        while (*text != '\0' && length_ < sizeof text_ - 1)
            text_[length_++] = *text++;
        return *this;
    }
    SafeText &operator<<(int number) {
        char digits[12];
        size_t at = sizeof digits;
        digits[--at] = '\0';
        unsigned rest =
            number < 0 ? 0u - static_cast<unsigned>(number) : static_cast<unsigned>(number);
        do {
            digits[--at] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (number < 0)
            digits[--at] = '-';
        return *this << digits + at;
    }
    const char *text() const { return text_; }
    size_t length() const { return length_; }

  private:
    char text_[256] = {};
    size_t length_ = 0;
};

}  // namespace utils
