// The ISO 8473 checksum. Both directions share fletcher_sums, the one place to make faster; its
// block length keeps the second sum within 31 bits between reductions.
#include "utils/iso_chksum.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace utils {
namespace {

constexpr int32_t kModulus = 255;
constexpr unsigned kBlock = 4102;

// The second sum after a block of 0xFF bytes that both sums entered with the largest remainder.
constexpr int64_t largest_sum(int64_t block) {
    return 254 + block * 254 + 255 * block * (block + 1) / 2;
}
static_assert(largest_sum(kBlock) <= INT32_MAX && largest_sum(kBlock + 1) > INT32_MAX);

struct Sums {
    int32_t c0;
    int32_t c1;
};

// The running sums of `len` bytes, reduced. Eight bytes at a time: each counts in the second sum as
// often as it would if the sums were taken byte by byte.
Sums fletcher_sums(const unsigned char *data, unsigned len) {
    int32_t c0 = 0;
    int32_t c1 = 0;
    while (len > 0) {
        unsigned block = std::min(len, kBlock);
        len -= block;
        for (; block >= 8; block -= 8, data += 8) {
            c1 += 8 * c0 + 8 * data[0] + 7 * data[1] + 6 * data[2] + 5 * data[3] + 4 * data[4] +
                  3 * data[5] + 2 * data[6] + data[7];
            c0 += data[0] + data[1] + data[2] + data[3] + data[4] + data[5] + data[6] + data[7];
        }
        for (; block > 0; --block) {
            c0 += *data++;
            c1 += c0;
        }
        c0 %= kModulus;
        c1 %= kModulus;
    }
    return {c0, c1};
}

}  // namespace
}  // namespace utils

void computeIsoChksum(unsigned char *data, unsigned len, unsigned char *chk) {
    if (chk == nullptr || (data == nullptr && len > 0))
        return;
    chk[0] = 0;
    chk[1] = 0;
    utils::Sums sums = utils::fletcher_sums(data, len);
    // Bytes behind the first byte of the field; 64 bits, so that long units do not overflow.
    int64_t behind = int64_t{len} - (chk - data + 1);
    auto x = static_cast<int32_t>((behind * sums.c0 - sums.c1) % utils::kModulus);
    if (x <= 0)
        x += utils::kModulus;
    int32_t y = 2 * utils::kModulus - x - sums.c0;
    if (y > utils::kModulus)
        y -= utils::kModulus;
    chk[0] = static_cast<unsigned char>(x);
    chk[1] = static_cast<unsigned char>(y);
}

int isoChksumOk(const unsigned char *data, unsigned len, const unsigned char *chk) {
    if (chk == nullptr)
        return 0;
    if ((chk[0] == 0 && chk[1] == 0) || len == 0)
        return 1;
    if (data == nullptr)
        return 0;
    utils::Sums sums = utils::fletcher_sums(data, len);
    return sums.c0 == 0 && sums.c1 == 0;
}

int iszero(const void *bytes, unsigned len) {
    auto *first = static_cast<const unsigned char *>(bytes);
    if (first == nullptr)
        return len == 0;
    for (; len >= sizeof(uintptr_t); len -= static_cast<unsigned>(sizeof(uintptr_t))) {
        uintptr_t word;
        memcpy(&word, first + len - sizeof word, sizeof word);
        if (word != 0)
            return 0;
    }
    while (len > 0) {
        if (first[--len] != 0)
            return 0;
    }
    return 1;
}
