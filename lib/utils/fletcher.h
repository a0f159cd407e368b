// SPDX-License-Identifier: Apache-2.0
// The running sums of the ISO 8473 checksum, modulo 255: by words, and by vectors where the
// processor has them. A byte that `n` bytes follow counts n + 1 times in the second sum, so every
// way adds up bytes and weighted bytes. All give the same sums.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace utils {

constexpr uint32_t kFletcherModulus = 255;
constexpr size_t kFletcherBlock = 4102;

// The second sum after a block of 0xFF bytes that both sums entered with the largest remainder.
constexpr int64_t largest_fletcher_sum(int64_t block) {
    return 254 + block * 254 + 255 * block * (block + 1) / 2;
}
// The block is the longest whose sums stay within 31 bits between reductions.
static_assert(largest_fletcher_sum(kFletcherBlock) <= INT32_MAX &&
              largest_fletcher_sum(kFletcherBlock + 1) > INT32_MAX);

struct FletcherSums {
    uint32_t c0;
    uint32_t c1;
};

// Words of the processor, whose even and odd bytes are added up in lanes of 16 bits.
class FletcherWords {
  public:
    static constexpr unsigned kBytes = sizeof(uintptr_t);
    // The most words whose sums of sums fit a lane: 255 * (1 + 2 + ... + 22) < 65536.
    static constexpr size_t kMost = 22;

    void add(const unsigned char *from) {
        uintptr_t word;
        memcpy(&word, from, kBytes);
        even_ += word & kLanes;
        odd_ += word >> 8 & kLanes;
        even_sums_ += even_;
        odd_sums_ += odd_;
    }

    // Adds up the lanes.
    void total(FletcherSums *sums) const {
        for (unsigned lane = 0; lane < kBytes / 2; ++lane) {
            // Where the lane's bytes stand in a word of memory.
            constexpr bool kLittle = std::endian::native == std::endian::little;
            unsigned even_at = kLittle ? 2 * lane : kBytes - 1 - 2 * lane;
            unsigned odd_at = kLittle ? even_at + 1 : even_at - 1;
            uint32_t even = at(even_, lane);
            uint32_t odd = at(odd_, lane);
            uint32_t counted = at(even_sums_, lane) + at(odd_sums_, lane);
            sums->c0 += even + odd;
            sums->c1 += kBytes * counted - even_at * even - odd_at * odd;
        }
    }

  private:
    static constexpr uintptr_t kLanes = ~uintptr_t{0} / 0xFFFF * 0xFF;

    static uint32_t at(uintptr_t lanes, unsigned lane) {
        return static_cast<uint32_t>(lanes >> 16 * lane & 0xFFFF);
    }

    uintptr_t even_ = 0;
    uintptr_t odd_ = 0;
    uintptr_t even_sums_ = 0;
    uintptr_t odd_sums_ = 0;
};

// For processors without vectors: a word of bytes at a time, the sums reduced a block at a time.
inline FletcherSums fletcher_portable(const unsigned char *data, size_t len) {
    FletcherSums sums{0, 0};
    while (len > 0) {
        size_t block = std::min(len, kFletcherBlock);
        len -= block;
        while (block >= FletcherWords::kBytes) {
            size_t count = std::min(block / FletcherWords::kBytes, FletcherWords::kMost);
            block -= count * FletcherWords::kBytes;
            sums.c1 += static_cast<uint32_t>(count) * FletcherWords::kBytes * sums.c0;
            FletcherWords words;
#pragma GCC unroll 2
            for (; count > 0; --count, data += FletcherWords::kBytes)
                words.add(data);
            words.total(&sums);
        }
        for (; block > 0; --block) {
            sums.c0 += *data++;
            sums.c1 += sums.c0;
        }
        sums.c0 %= kFletcherModulus;
        sums.c1 %= kFletcherModulus;
    }
    return sums;
}

#ifdef __x86_64__
// A block of vectors adds up in lanes of 32 bits: the bytes and the sums of the bytes before each
// vector (both in every second lane), and the bytes weighted within their vector.
constexpr size_t kFletcherVectors = 1024;
static_assert(4 * 8 * 255 * (kFletcherVectors * kFletcherVectors / 2) <= UINT32_MAX);

inline void fletcher_total(__m128i sum, __m128i before, __m128i weighted, uint64_t width,
                           uint64_t bytes, FletcherSums *sums) {
    __m128i both = _mm_or_si128(sum, _mm_slli_epi64(before, 32));
    both = _mm_add_epi64(both, _mm_unpackhi_epi64(both, both));
    weighted = _mm_add_epi32(weighted, _mm_shuffle_epi32(weighted, _MM_SHUFFLE(1, 0, 3, 2)));
    weighted = _mm_add_epi32(weighted, _mm_shuffle_epi32(weighted, _MM_SHUFFLE(2, 3, 0, 1)));
    auto totals = static_cast<uint64_t>(_mm_cvtsi128_si64(both));
    uint64_t c1 = sums->c1 + bytes * sums->c0 + (totals >> 32) * width +
                  static_cast<uint32_t>(_mm_cvtsi128_si32(weighted));
    sums->c1 = static_cast<uint32_t>(c1 % kFletcherModulus);
    sums->c0 = (sums->c0 + static_cast<uint32_t>(totals)) % kFletcherModulus;
}

// Weights of bytes within a vector; those of a vector's first n bytes alone stand 32 - n further.
alignas(32) inline constexpr signed char kFletcherWeights[64] = {
    32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17,
    16, 15, 14, 13, 12, 11, 10, 9,  8,  7,  6,  5,  4,  3,  2,  1};

// Both ways add the first `odd` bytes and the vectors behind them, and read a whole vector at
// `data` in any case.
struct FletcherSse2 {
    static constexpr size_t kWidth = sizeof(__m128i);

    static __m128i load(const void *from) {
        return _mm_loadu_si128(static_cast<const __m128i *>(from));
    }
    static __m128i weigh(__m128i v, __m128i weights) {
        const __m128i zero = _mm_setzero_si128();
        return _mm_add_epi32(
            _mm_madd_epi16(_mm_unpacklo_epi8(v, zero), _mm_unpacklo_epi8(weights, zero)),
            _mm_madd_epi16(_mm_unpackhi_epi8(v, zero), _mm_unpackhi_epi8(weights, zero)));
    }
    static void add(const unsigned char *data, size_t odd, size_t vectors, FletcherSums *sums) {
        const __m128i zero = _mm_setzero_si128();
        const __m128i weights = load(kFletcherWeights + 16);
        __m128i part = load(kFletcherWeights + 32 - odd);
        __m128i v = _mm_and_si128(load(data), _mm_cmpgt_epi8(part, zero));
        __m128i weighted = weigh(v, part);
        __m128i sum = _mm_sad_epu8(v, zero);
        __m128i before = zero;
        data += odd;
        for (size_t i = 0; i < vectors; ++i, data += kWidth) {
            v = load(data);
            before = _mm_add_epi32(before, sum);
            sum = _mm_add_epi32(sum, _mm_sad_epu8(v, zero));
            weighted = _mm_add_epi32(weighted, weigh(v, weights));
        }
        fletcher_total(sum, before, weighted, kWidth, vectors * kWidth, sums);
    }
};

#define UTILS_AVX2 [[gnu::target("avx2")]] static
struct FletcherAvx2 {
    static constexpr size_t kWidth = sizeof(__m256i);

    UTILS_AVX2 __m256i load(const void *from) {
        return _mm256_loadu_si256(static_cast<const __m256i *>(from));
    }
    UTILS_AVX2 __m256i weigh(__m256i v, __m256i weights) {
        return _mm256_madd_epi16(_mm256_maddubs_epi16(v, weights), _mm256_set1_epi16(1));
    }
    UTILS_AVX2 __m128i fold(__m256i v) {
        return _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    }
    UTILS_AVX2 void add(const unsigned char *data, size_t odd, size_t vectors, FletcherSums *sums) {
        const __m256i zero = _mm256_setzero_si256();
        const __m256i weights = load(kFletcherWeights);
        __m256i part = load(kFletcherWeights + 32 - odd);
        __m256i v = _mm256_and_si256(load(data), _mm256_cmpgt_epi8(part, zero));
        __m256i weighted = weigh(v, part);
        __m256i sum = _mm256_sad_epu8(v, zero);
        __m256i before = zero;
        data += odd;
#pragma GCC unroll 4
        for (size_t i = 0; i < vectors; ++i, data += kWidth) {
            v = load(data);
            before = _mm256_add_epi32(before, sum);
            sum = _mm256_add_epi32(sum, _mm256_sad_epu8(v, zero));
            weighted = _mm256_add_epi32(weighted, weigh(v, weights));
        }
        fletcher_total(fold(sum), fold(before), fold(weighted), kWidth, vectors * kWidth, sums);
    }
};
#undef UTILS_AVX2

template <typename Vectors>
FletcherSums fletcher_vectors(const unsigned char *data, size_t len) {
    if (len < Vectors::kWidth)
        return fletcher_portable(data, len);
    FletcherSums sums{0, 0};
    size_t odd = len % Vectors::kWidth;
    for (size_t left = len / Vectors::kWidth; left > 0; odd = 0) {
        size_t block = std::min(left, kFletcherVectors - 1);
        Vectors::add(data, odd, block, &sums);
        data += odd + block * Vectors::kWidth;
        left -= block;
    }
    return sums;
}
#endif

}  // namespace utils
