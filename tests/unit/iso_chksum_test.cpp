// SPDX-License-Identifier: Apache-2.0
// Checksums and zero blocks against their simple forms, for every length and every way to compute.
#include "utils/iso_chksum.h"

#include "fletcher.h"
#include "support/support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Sums = std::pair<unsigned, unsigned>;

Sums simple_fletcher(const Bytes &bytes) {
    unsigned a = 0, b = 0;
    for (unsigned char byte : bytes) {
        a = (a + byte) % 255;
        b = (b + a) % 255;
    }
    return {a, b};
}

int ok(const Bytes &unit, size_t field) {
    return isoChksumOk(unit.data(), static_cast<unsigned>(unit.size()), &unit[field]);
}

// `unit` with its checksum, which satisfies the simple form.
Bytes checked(Bytes unit, size_t field) {
    computeIsoChksum(unit.data(), static_cast<unsigned>(unit.size()), &unit[field]);
    EXPECT_EQ(simple_fletcher(unit), Sums()) << unit.size() << " " << field;
    EXPECT_NE(unit[field], 0);
    EXPECT_NE(unit[field + 1], 0);
    EXPECT_EQ(ok(unit, field), 1);
    return unit;
}

TEST(IsoChksum, AgreesWithTheSimpleFormForEveryLengthAndFindsAChangedBit) {
    std::mt19937 random(1);
    for (size_t size = 2; size <= 9000; ++size) {
        Bytes unit(size, 0xFF);  // the largest sums
        checked(unit, size - 2);
        std::generate(unit.begin(), unit.end(), std::ref(random));
        size_t field = random() % (size - 1), step = size <= 61 || size == 4300 ? 1 : 8 * size;
        unit = checked(unit, field);
        for (size_t bit = random() % step; bit < 8 * size; bit += step) {
            unit[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
            ASSERT_EQ(ok(unit, field), 0) << size << " bit " << bit;
            unit[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
        }
    }
    Bytes unit(12000000);  // the product of length and sum is large, too
    unit[7] = 0xFE;
    checked(unit, 0);
}

// The ways that other processors take, too. Units grow at their front, so that every length meets
// every alignment and nothing may be read behind them.
TEST(IsoChksum, EveryWayOfAddingUpAgreesWithBytes) {
    std::vector ways{utils::fletcher_portable};
#ifdef __x86_64__
    ways.push_back(utils::fletcher_vectors<utils::FletcherSse2>);
    if (__builtin_cpu_supports("avx2"))
        ways.push_back(utils::fletcher_vectors<utils::FletcherAvx2>);
#endif
    std::mt19937 random(3);
    const Bytes large(200000, 0xFF);
    const Sums sums = simple_fletcher(large);
    for (size_t way = 0; way < ways.size(); ++way) {
        utils::FletcherSums found = ways[way](large.data(), large.size());
        ASSERT_EQ(Sums(found.c0, found.c1), sums) << way;
        for (size_t behind = 0; behind < (support::emulated() ? 4 : 32); ++behind) {
            Bytes bytes(9000 + behind, 0xFF);
            if (behind % 2 == 0)
                std::generate(bytes.begin(), bytes.end(), std::ref(random));
            auto [c0, c1] = Sums();
            for (unsigned len = 0; len <= 9000; ++len) {
                found = ways[way](bytes.data() + 9000 - len, len);
                ASSERT_EQ(Sums(found.c0, found.c1), Sums(c0, c1)) << way << " " << len;
                unsigned front = len < 9000 ? bytes[8999 - len] : 0;
                c0 = (c0 + front) % 255;
                c1 = (c1 + (len + 1) * front) % 255;
            }
        }
    }
}

TEST(IsoChksum, AcceptsUnitsWithoutAChecksumAndEmptyOnes) {
    Bytes unit(20, 3);
    computeIsoChksum(unit.data(), 0, &unit[5]);
    EXPECT_EQ(unit[5], 255);
    EXPECT_EQ(unit[6], 255);
    EXPECT_EQ(isoChksumOk(unit.data(), 0, &unit[5]), 1);
    unit[5] = unit[6] = 0;
    EXPECT_EQ(ok(unit, 5), 1);
    unit[6] = 1;
    EXPECT_EQ(ok(unit, 5), 0);
    computeIsoChksum(nullptr, 3, &unit[5]);
    computeIsoChksum(unit.data(), 20, nullptr);
    EXPECT_EQ(isoChksumOk(nullptr, 3, &unit[5]), 0);
    EXPECT_EQ(isoChksumOk(unit.data(), 20, nullptr), 0);
}

TEST(IsZero, LooksAtExactlyItsBytes) {
    std::mt19937 random(5);
    for (unsigned len = 0; len <= 9000; ++len) {
        size_t front = len % 33;
        Bytes bytes(front + len + 1, 0xEE);
        std::fill_n(bytes.begin() + static_cast<ptrdiff_t>(front), len,
                    static_cast<unsigned char>(0));
        ASSERT_EQ(iszero(&bytes[front], len), 1) << len;
        // Each byte of short blocks, some of long ones.
        for (size_t at = 0; at < len; at += len <= 40 ? 1 : 1 + random() % len) {
            bytes[front + at] = 0x80;
            ASSERT_EQ(iszero(&bytes[front], len), 0) << len << " " << at;
            bytes[front + at] = 0;
        }
    }
    EXPECT_EQ(iszero(nullptr, 0), 1);
    EXPECT_EQ(iszero(nullptr, 4), 0);
}

// Both functions of that name, in both languages.
TEST(IsZero, LivesWithTheOneOfMathH) {
    if (support::emulated() || system("command -v cc c++ >/dev/null") != 0)
        GTEST_SKIP() << "no compiler of the program's own processor";
    support::write_file("/tmp/both.c", R"(
#include <utils/iso_chksum.h>
#include <math.h>
int (iszero)(const void *bytes, unsigned len) { return bytes != 0 && len == 3; }
int main(void) { return iszero("", 3) && iszero(-0.0) && !iszero(1.5f) ? 0 : 1; }
)");
    const std::string options = " -Wall -Wextra -Wpedantic -Werror -I" UTILS_SOURCE_DIR "/include";
    for (std::string compiler : {"cc -D_GNU_SOURCE", "c++ -x c++"})
        EXPECT_EQ(system((compiler + options + " /tmp/both.c -o /tmp/a && /tmp/a").c_str()), 0);
}

}  // namespace
