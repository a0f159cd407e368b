// Messages written out by hand, for the tests of formats that leave the process: nothing here calls
// the library.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "support/support.h"

namespace support {

// `text` as its big-endian bytes.
inline std::string word(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift & 0xFF);
    return bytes;
}

inline std::string words(const std::vector<uint32_t> &values) {
    std::string bytes;
    for (uint32_t value : values)
        bytes += word(value);
    return bytes;
}

inline uint32_t word_at(std::string_view bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = offset; i < offset + 4; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes.at(i));
    return value;
}

// The payload of a redirect request.
inline std::string redirect_payload(uint32_t kind, const std::string &text, uint32_t port) {
    std::string bytes = words({kind, 16, static_cast<uint32_t>(text.size() + 1), port}) + text;
    return bytes + std::string(4 - bytes.size() % 4, '\0');
}

// An inline argument block.
inline std::string inline_block(const std::string &payload) {
    return words({1, 0, 0, 20, static_cast<uint32_t>(payload.size())}) + payload;
}

// A command message.
inline std::string command_message(const std::vector<std::string> &arguments) {
    std::string offsets, texts;
    for (const std::string &argument : arguments) {
        offsets += word(static_cast<uint32_t>(8 + 4 * arguments.size() + texts.size()));
        texts += argument + '\0';
    }
    std::string body = word(static_cast<uint32_t>(arguments.size())) + offsets + word(0) + texts;
    return word(static_cast<uint32_t>(body.size())) + body;
}

// Shared-memory segments in the image.
inline int segments() {
    std::string table = read_file("/proc/sysvipc/shm");
    return static_cast<int>(std::count(table.begin(), table.end(), '\n')) - 1;
}

}  // namespace support
