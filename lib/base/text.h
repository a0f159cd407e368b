// Bounded text: every copy is cut to its room and terminated.
#pragma once

#include <cstring>

namespace utils {

// Copies `text` (null counts as "") into the `size` bytes at `to`, cut and terminated; pads with
// zeros, so that no old bytes stay in a record.
inline void copy_text(char *to, size_t size, const char *text) {
    size_t length = text != nullptr ? strnlen(text, size - 1) : 0;
    if (length > 0)
        memcpy(to, text, length);
    memset(to + length, 0, size - length);
}

template <size_t size>
void copy_text(char (&to)[size], const char *text) {
    copy_text(to, size, text);
}

}  // namespace utils
