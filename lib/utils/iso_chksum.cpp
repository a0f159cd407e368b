// SPDX-License-Identifier: Apache-2.0
// The ISO 8473 checksum. Both directions take the running
// sums in the fastest way that the processor has.
#include "utils/iso_chksum.h"

#include <cstddef>
#include <cstring>

#include "fletcher.h"

namespace utils {
namespace {

constexpr auto kModulus = static_cast<int32_t>(kFletcherModulus);

struct Sums {
    int32_t c0;
    int32_t c1;
};

Sums running_sums(const unsigned char *data, size_t len) {
#ifdef __x86_64__
    // GCOVR_EXCL_START: the processor says which
    FletcherSums sums = __builtin_cpu_supports("avx2") ? fletcher_vectors<FletcherAvx2>(data, len)
                                                       : fletcher_vectors<FletcherSse2>(data, len);
    // GCOVR_EXCL_STOP
#else
    FletcherSums sums = fletcher_portable(data, len);
#endif
    return {static_cast<int32_t>(sums.c0), static_cast<int32_t>(sums.c1)};
}

}  // namespace
}  // namespace utils

using namespace utils;

void computeIsoChksum(unsigned char *data, unsigned len, unsigned char *chk) {
    if (chk == nullptr || (data == nullptr && len > 0))
        return;
    chk[0] = 0;
    chk[1] = 0;
    Sums sums = running_sums(data, len);
    // Bytes behind the first byte of the field; 64 bits, so that long units do not overflow.
    int64_t behind = int64_t{len} - (chk - data + 1);
    auto x = static_cast<int32_t>((behind * sums.c0 - sums.c1) % kModulus);
    if (x <= 0)
        x += kModulus;
    int32_t y = 2 * kModulus - x - sums.c0;
    if (y > kModulus)
        y -= kModulus;
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
    Sums sums = running_sums(data, len);
    return sums.c0 == 0 && sums.c1 == 0;
}

// All are zero when the first word is, and each byte equals the one a word before it: memcmp() is
// the fastest reader of long blocks everywhere.
int iszero(const void *bytes, unsigned len) {
    auto *first = static_cast<const unsigned char *>(bytes);
    uintptr_t word = 0;
    if (first == nullptr)
        return len == 0;
    if (len < sizeof word) {
        memcpy(&word, first, len);
        return word == 0;
    }
    memcpy(&word, first, sizeof word);
    return word == 0 && memcmp(first, first + sizeof word, len - sizeof word) == 0;
}
