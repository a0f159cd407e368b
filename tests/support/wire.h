// SPDX-License-Identifier: Apache-2.0
// Messages written out by hand, for the tests of formats that leave the process: nothing here calls
// the library.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "support/support.h"

namespace support {

// The values as big-endian words.
inline std::string words(const std::vector<uint32_t> &values) {
    std::string bytes;
    for (uint32_t value : values) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

// An inline argument block.
inline std::string inline_block(const std::string &payload) {
    return words({1, 0, 0, 20, static_cast<uint32_t>(payload.size())}) + payload;
}

// A command message.
inline std::string command_message(const std::vector<std::string> &arguments) {
    std::vector<uint32_t> header{0, static_cast<uint32_t>(arguments.size())};
    std::string texts;
    for (const std::string &argument : arguments) {
        header.push_back(static_cast<uint32_t>(8 + 4 * arguments.size() + texts.size()));
        texts += argument + '\0';
    }
    header.push_back(0);
    header[0] = static_cast<uint32_t>(4 * header.size() - 4 + texts.size());
    return words(header) + texts;
}

}  // namespace support
