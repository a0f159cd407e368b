// SPDX-License-Identifier: Apache-2.0
// Values out of tagged text, and World Wide Names in their two spellings. Everything that is read
// lies between the caller's cursor and the record's end tag,
// so the end of the text is never passed.
#include "utils/wwn.h"

#include <cstdint>
#include <cstring>

#include "base/text.h"

namespace utils {
namespace {

// Where a value stands: the characters from `begin`, up to `closing`, and before `limit`.
struct ValueSpan {
    char *begin;
    char *limit;
    char closing;
};

// Looks for the value behind the opener at `start`;
// false when it does not open before the record ends.
bool find_value(char *start, const char *startTag, char *end, ValueSpan *span) {
    bool element = startTag[strlen(startTag) - 1] == '>';
    span->limit = element ? end + 1 : end;
    span->closing = element ? '<' : '"';
    char opening = element ? '>' : '"';
    auto *open =
        static_cast<char *>(memchr(start, opening, static_cast<size_t>(span->limit - start)));
    span->begin = open != nullptr ? open + 1 : nullptr;
    return open != nullptr;
}

// Copies the value, at most `room` characters, without the backslashes. Returns where it stopped.
char *copy_value(const ValueSpan &span, char **out, size_t room) {
    char *from = span.begin;
    for (; from < span.limit && *from != span.closing && room > 0; --room) {
        if (*from == '\\' && ++from == span.limit)
            break;
        *(*out)++ = *from++;
    }
    return from;
}

char *put(char *to, const char *text, size_t length) {
    if (length > 0)
        memcpy(to, text, length);
    return to + length;
}

bool is_hex_digit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

// Whether a colon stands behind so many characters: the first seven pairs of the colon form.
bool colon_follows(int written) {
    return written % 3 == 2 && written <= 20;
}

bool read_attribute(char **cursor, const char *tag, char (&value)[WWN_TAG_SIZE]) {
    return getStrElement(value, cursor, tag, "</Switch>", WWN_TAG_SIZE - 1, nullptr, "",
                         STR_ELEMENT_KEEP) > 0;
}

void copy_plain(char *to, const char *value) {
    if (strchr(value, ':') != nullptr)
        formatWwn(value, to, WWN_TAG_SIZE);
    else
        put(to, value, strlen(value) + 1);
}

}  // namespace
}  // namespace utils

using namespace utils;

int getStrElement(char *dst, char **cursor, const char *startTag, const char *endTag, int maxLen,
                  const char *prefix, const char *suffix, int mode) {
    if (dst == nullptr || cursor == nullptr || *cursor == nullptr || startTag == nullptr ||
        endTag == nullptr || *startTag == '\0')
        return STR_ELEMENT_BAD_ARGUMENT;
    char *end = strstr(*cursor, endTag);
    if (end == nullptr)
        return STR_ELEMENT_NO_END;
    // The start tag has to begin before the end tag; it may reach into it.
    size_t tag = strlen(startTag);
    size_t searched = static_cast<size_t>(end - *cursor) + strnlen(end, tag - 1);
    auto *start = static_cast<char *>(memmem(*cursor, searched, startTag, tag));
    if (start == nullptr)
        return STR_ELEMENT_NO_START;
    char *ignored = nullptr;
    char *&advanced = mode == STR_ELEMENT_ADVANCE ? *cursor : ignored;
    if (maxLen == 0) {
        advanced = start + tag;
        return 1;
    }
    size_t before = prefix != nullptr ? strlen(prefix) : 0;
    size_t behind = suffix != nullptr ? strlen(suffix) : 0;
    if (maxLen < 0 || before + behind > static_cast<size_t>(maxLen))
        return STR_ELEMENT_BAD_ARGUMENT;
    ValueSpan span{};
    if (!find_value(start, startTag, end, &span))
        return STR_ELEMENT_UNCLOSED;
    if (*span.begin == span.closing) {
        advanced = span.begin;
        return 0;
    }
    char *out = put(dst, prefix, before);
    char *stopped = copy_value(span, &out, static_cast<size_t>(maxLen) - before - behind);
    if (stopped >= span.limit)
        return STR_ELEMENT_UNCLOSED;
    if (suffix != nullptr)
        put(out, suffix, behind + 1);
    advanced = stopped;
    return static_cast<int>(static_cast<size_t>(out - dst) + behind);
}

int formatWwn(const char *src, char *dst, int dstLen) {
    if (src == nullptr || dst == nullptr || dstLen < WWN_TEXT_SIZE)
        return UTILS_ERROR;
    bool strip = strchr(src, ':') != nullptr;
    int written = 0;
    for (; *src != '\0' && written < dstLen; ++src) {
        if (strip) {
            if (*src != ':')
                dst[written++] = *src;
            continue;
        }
        dst[written++] = is_hex_digit(*src) ? *src : 'X';
        if (colon_follows(written))
            dst[written++] = ':';
    }
    dst[written] = '\0';
    return written + 1;
}

int getWwnTagData(char **cursor, char *isn, char *wwn) {
    if (cursor == nullptr || isn == nullptr || wwn == nullptr)
        return UTILS_ERROR;
    char isn_value[WWN_TAG_SIZE];
    char wwn_value[WWN_TAG_SIZE];
    if (!read_attribute(cursor, "ISN=", isn_value) || !read_attribute(cursor, "WWN=", wwn_value))
        return UTILS_ERROR;
    copy_plain(isn, isn_value);
    copy_plain(wwn, wwn_value);
    return UTILS_OK;
}
