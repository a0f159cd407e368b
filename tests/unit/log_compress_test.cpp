// SPDX-License-Identifier: Apache-2.0
// The line coder and its decoder: exact streams, the described search, damaged input.
#include "utils/log_compress.h"

#include <deque>

#include "line_history.h"
#include "support/log_stream.h"

namespace {

using namespace std::literals;
using support::decoded;
using support::Lines;

std::string coded(const Lines &lines, int capacity = 1 << 17) {
    size_t next = 0;
    return support::coded(lines, next, capacity);
}

// The coder as it is described, without any short cut.
std::string model(const Lines &lines) {
    std::string out;
    std::deque<std::string> history;  // newest first
    for (const std::string &line : lines) {
        for (size_t p = 0; p < line.size();) {
            size_t best = 0, distance = 0;
            for (size_t d = 0; d < history.size(); ++d) {
                std::string_view old = history[d], rest = std::string_view(line).substr(p, 127);
                old.remove_prefix(std::min(p, old.size()));
                auto end = std::mismatch(rest.begin(), rest.end(), old.begin(), old.end()).first;
                if (auto run = static_cast<size_t>(end - rest.begin()); run > best) {
                    best = run;
                    distance = d;
                }
            }
            if (best >= 3)
                out += {static_cast<char>(0x80 | best), static_cast<char>(distance)};
            else
                out += static_cast<char>(line[p] & 0x7F);
            p += best >= 3 ? best : 1;
        }
        out += '\x80';
        history.push_front(line);
        history.resize(std::min<size_t>(history.size(), 127));
    }
    return out;
}

// The stream of one way to search, which another processor may take.
template <typename History, typename... Search>
std::string coded_by(const Lines &lines, Search... search) {
    auto history = std::make_unique<History>();
    std::string out;
    for (const std::string &line : lines) {
        unsigned char bytes[LOG_COMPRESS_LINE_MAX];
        int written = utils::code_line(*history, line.data(), static_cast<int>(line.size()), bytes,
                                       search...);
        out.append(bytes, bytes + written) += '\x80';
    }
    return out;
}

TEST(LogCompress, CodesTheseLinesToTheseBytesAsLongAsThereIsRoom) {
    std::tuple<Lines, std::string, int> cases[] = {
        {{"a\n", "a\n"},
         "a\n\x80"
         "a\n\x80"s,
         1000},
        {{"abc\n", "abc\n"}, "abc\n\x80\x84\0\x80"s, 1000},
        {{"xabc", "yabc", "zabcd", "-abcd"}, "xabc\x80y\x83\0\x80z\x83\0d\x80-\x84\0\x80"s, 1000},
        {{"abcd", "abcx", "abcd"}, "abcd\x80\x83\0x\x80\x84\1\x80"s, 1000},
        {{"a\xE1\x80z", ""}, "aa\0z\x80\x80"s, 1000},
        {{std::string(300, 'x')}, std::string(255, 'x') + '\x80', 1000},
        {{"x"}, "", 256},
        {{"x", "x"}, "x\x80", 258},
        {{"x", "x"}, "x\x80x\x80", 259},
    };
    for (auto &[lines, expected, capacity] : cases)
        EXPECT_EQ(coded(lines, capacity), expected);
    unsigned char buffer[256];
    auto made = [&](int size) {
        return log_createCompressor(buffer, size) != nullptr ||
               log_createDecompressor(buffer, size) != nullptr;
    };
    EXPECT_FALSE(made(255));
    EXPECT_FALSE(support::without_memory([&] { return made(256); }));
}

TEST(LogCompress, AgreesWithTheDescribedSearchAndComesBack) {
    std::mt19937 random(1);
    for (int round = support::emulated() ? 4 : 20; round > 0; --round) {
        // Lines share columns with older ones in every way: changed characters, cut and grown ends.
        Lines lines{"seed of the first line"};
        while (lines.size() < 400) {
            std::string line =
                lines[lines.size() - 1 - random() % std::min<size_t>(lines.size(), 140)];
            for (auto changes = random() % 6; changes > 0; --changes)
                line[random() % line.size()] = static_cast<char>('a' + random() % 4);
            if (random() % 4 == 0)
                line.resize(1 + random() % 255, 'e');
            lines.push_back(line);
        }
        std::string stream = model(lines);
        ASSERT_EQ(coded(lines), stream);
        ASSERT_EQ(coded_by<utils::LineRows>(lines), stream);
#ifdef __x86_64__
        ASSERT_EQ(coded_by<utils::LineColumns>(lines, utils::equal_lines_sse2), stream);
        if (__builtin_cpu_supports("avx2")) {
            ASSERT_EQ(coded_by<utils::LineColumns>(lines, utils::equal_lines_avx2), stream);
        }
#endif
        ASSERT_EQ(decoded(stream), std::pair(lines, size_t{0}));
    }
}

TEST(LogCompress, DecoderKeepsItsRules) {
    std::string one = "abc\x80", full = std::string(255, 'x') + '\x80', wrapped;
    for (int i = 0; i < 128; ++i)
        wrapped += {'l', static_cast<char>(i % 100), '_', '\x80'};
    std::tuple<std::string, size_t, size_t> cases[] = {
        {one + "\x83\0"s, 2, 0},              // a stream may end without a mark
        {one + "\x81\0\x82\0"s, 2, 0},        // short runs are decoded all the same
        {one + "\x83\1\x80", 1, 1},           // no such line
        {full + "\xFF\0\xFF\0y\x80"s, 2, 0},  // 255 characters
        {full + "\xFF\0\xFF\0yz\x80"s, 1, 1},
        {full + "\xFF\0\xFF\0\x82\0\x80"s, 1, 1},
        {"\x90\x91x\x80", 1, 0},             // a first line is taken as it is
        {wrapped + "\x83\x7F\x80", 129, 0},  // wrapped indices take an overwritten line
        {wrapped + "\x83\x81\x80", 128, 1},
        {full + "\x83", 1, 1},  // the distance is cut off
    };
    for (auto &[stream, lines, errors] : cases) {
        auto result = decoded(stream);
        EXPECT_EQ(std::pair(result.first.size(), result.second), std::pair(lines, errors))
            << testing::PrintToString(stream);
    }
    // After an empty line the two histories differ by one line.
    EXPECT_EQ(decoded(coded({"abc1", "xyz2", "", "xyz3"})).first, (Lines{"abc1", "xyz2", "abc3"}));
}

TEST(LogCompress, ShowsAStreamBetweenItsHeadings) {
    unsigned char stream[256] = "abc\n\n\x80\x84\0\x80\x80";
    auto shown = [&](int length) {
        return support::captured(1, [&] { log_showDecompressedData(stream, length); });
    };
    EXPECT_EQ(shown(256),
              "\n\nDecompressed data start ********\nabc\n\nabc\n"
              "\nDecompressed data end ********\n\n");
    EXPECT_EQ(shown(255), "Error: can't create log data decompressor\n");
    EXPECT_EQ(log_getCompressorOlen(nullptr), 0);
}

}  // namespace
