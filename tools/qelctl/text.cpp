// SPDX-License-Identifier: Apache-2.0
#include "text.h"

#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>

#include "qelctl.h"

namespace qelctl {
namespace {

constexpr const char *kReplacement = "\xef\xbf\xbd";  // U+FFFD

// The character at the begin of a text: its bytes, or those of a sequence that is broken or cut
// off, and then no code point.
struct Character {
    size_t length;
    bool valid, cut;
    uint32_t code;
};

// Well-formed sequences only: no longer ones than needed, no surrogates, nothing above U+10FFFF.
Character first_character(std::string_view text) {
    auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80)
        return {1, true, false, lead};
    if (lead < 0xc2 || lead > 0xf4)
        return {1, false, false, 0};
    size_t size = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    uint32_t code = lead & (0x7fU >> size);
    unsigned lowest = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    unsigned highest = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    for (size_t at = 1; at < size; ++at, lowest = 0x80, highest = 0xbf) {
        if (at == text.size())
            return {at, false, true, 0};
        auto byte = static_cast<unsigned char>(text[at]);
        if (byte < lowest || byte > highest)
            return {at, false, false, 0};
        code = code << 6 | (byte & 0x3fU);
    }
    return {size, true, false, code};
}

bool turns_direction(uint32_t code) {
    return code == 0x061c || code == 0x200e || code == 0x200f ||
           (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
}

void append(std::string &to, const Character &character, std::string_view bytes) {
    char escape[8];
    uint32_t code = character.code;
    if (!character.valid)
        to += kReplacement;
    else if (code < 0x20 || (code >= 0x7f && code < 0xa0))
        to.append(escape,
                  static_cast<size_t>(snprintf(escape, sizeof escape, "\\x%02x", code & 0xff)));
    else if (turns_direction(code))
        to.append(escape,
                  static_cast<size_t>(snprintf(escape, sizeof escape, "\\u%04x", code & 0xffff)));
    else
        to += bytes;
}

// Appends what of `text` can be shown; the count of bytes that were looked at.
size_t make_visible(std::string &to, std::string_view text, bool keep_lines, bool more_comes) {
    size_t at = 0;
    while (at < text.size()) {
        Character character = first_character(text.substr(at));
        if (character.cut && more_comes)
            break;
        if (keep_lines && (text[at] == '\n' || text[at] == '\t'))
            to += text[at];
        else
            append(to, character, text.substr(at, character.length));
        at += character.length;
    }
    return at;
}

}  // namespace

std::string TextFilter::pass(std::string_view piece) {
    pending_ += piece;
    std::string visible;
    pending_.erase(0, make_visible(visible, pending_, true, true));
    return visible;
}

std::string TextFilter::end() {
    std::string visible = visible_text(pending_);
    pending_.clear();
    return visible;
}

std::string visible_text(std::string_view text) {
    std::string visible;
    make_visible(visible, text, true, false);
    return visible;
}

std::string visible_name(std::string_view name) {
    std::string visible;
    make_visible(visible, name, false, false);
    return visible;
}

std::optional<int> number_in(std::string_view text, int lowest, int highest) {
    int value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && value >= lowest && value <= highest ? std::optional(value) : std::nullopt;
}

std::string user_name(uid_t user) {
    const passwd *entry = getpwuid(user);
    std::string name = user == 0 ? "root" : entry != nullptr ? visible_name(entry->pw_name) : "";
    return name.empty() || (user != 0 && name == "root") ? std::to_string(user) : name;
}

VisibleOutput::VisibleOutput(const std::string &prefix)
    : prefix_(prefix), stream_(fopencookie(this, "w", {nullptr, write, nullptr, nullptr})) {
    if (stream_ == nullptr)
        throw system_failure("cannot write");
}

VisibleOutput::~VisibleOutput() {
    fclose(stream_);
    print(filter_.end());
}

// Called by the C library, through which nothing can be thrown.
ssize_t VisibleOutput::write(void *output, const char *bytes, size_t count) {
    auto *self = static_cast<VisibleOutput *>(output);
    try {
        return self->print(self->filter_.pass({bytes, count})) ? static_cast<ssize_t>(count) : 0;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return 0;
    }
}

bool VisibleOutput::print(const std::string &text) {
    for (char c : text) {
        if (at_line_start_ && fputs(prefix_.c_str(), stdout) < 0)
            return false;
        at_line_start_ = c == '\n';
        if (putchar(c) == EOF)
            return false;
    }
    return true;
}

}  // namespace qelctl
