// SPDX-License-Identifier: Apache-2.0
// Big-endian 32-bit words, as every format that leaves the process has them; any alignment.
#pragma once

#include <cstdint>

namespace utils {

inline uint32_t load_be32(const void *from) {
    auto *bytes = static_cast<const unsigned char *>(from);
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

inline void store_be32(void *to, uint32_t word) {
    auto *bytes = static_cast<unsigned char *>(to);
    bytes[0] = static_cast<unsigned char>(word >> 24);
    bytes[1] = static_cast<unsigned char>(word >> 16);
    bytes[2] = static_cast<unsigned char>(word >> 8);
    bytes[3] = static_cast<unsigned char>(word);
}

}  // namespace utils
